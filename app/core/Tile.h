#pragma once

#include "QLModel/RunPhase.h"
#include "QLProtocol/proto/tiles.pb.h"
#include "QLSupport/Iso8601.h"

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace ql {

// The client's view of one copy job: the server's `CopyTile` as the client shows it, with the
// client-only state of a run in progress (`face`, `running`) and the job's history.
struct Tile {
    enum class Face { configured, queued, running, completed, failed };
    enum class CopyMode { smartUpdate, copyNewer, copyDifferent, eraseThenCopy };

    struct Schedule {
        bool scheduleOn = false;
        bool mountOn = false;       // runs when the destination is connected
        std::set<int> days;         // 0 Sunday … 6 Saturday
        std::set<int> weeks;        // weeks of the month, 1 … 5
        int minuteOfDay = 0;        // the time of day
        friend bool operator==(const Schedule&, const Schedule&) = default;
    };

    struct OnSuccessChoice {
        enum class PowerAction { doNothing, sleep, restart, shutdown };
        enum class AdditionalAction { ejectDestination, ejectSource, notify };
        PowerAction powerAction = PowerAction::doNothing;
        std::set<AdditionalAction> additional;
        friend bool operator==(const OnSuccessChoice&, const OnSuccessChoice&) = default;
    };

    struct ShortcutChoice {
        std::string name;
        std::string setupData;
        friend bool operator==(const ShortcutChoice&, const ShortcutChoice&) = default;
    };

    // The first failure of a run.
    struct Failure {
        std::string path;
        std::string syscall;
        std::string side;  // which endpoint failed
        std::int32_t errnoValue = 0;
        std::int32_t count = 0;
        friend bool operator==(const Failure&, const Failure&) = default;
    };

    // One finished run, most recent first in `runHistory`.
    struct HistoryRun {
        enum class Outcome { ok, cancelled, failed, skipped };
        std::string id;
        Outcome outcome = Outcome::ok;
        std::string reason;  // with failed and skipped
        SystemTime when{};
        std::string bytesText;
        std::string durationText;
        std::string logContent;
        std::uint64_t filesCopied = 0;
        std::uint64_t filesUpdated = 0;
        std::uint64_t filesDeleted = 0;
        std::uint64_t itemsEvaluated = 0;
        std::uint64_t bytesEvaluated = 0;
        std::uint64_t bytesCopied = 0;
        std::optional<bool> ranBootable;
        std::optional<CopyMode> ranMode;
        std::optional<std::string> ranSourceName, ranDestinationName;
        std::optional<std::string> ranSourceSubpath, ranDestinationSubpath;
        bool isCatchup = false;
        bool isOneTimeOSUpdate = false;
        int deferredCount = 0;
        std::optional<Failure> failure;
        friend bool operator==(const HistoryRun&, const HistoryRun&) = default;
    };

    // The live state of a run, present only while one is running.
    struct RunningState {
        enum class ScanModeInfo { incremental, fullFirstRun, fullHistoryExpired, fullRulesChanged, fullForced,
                                  fullUnspecified };
        struct StallNotice {
            enum class Kind { fileStall, scanStuck, scanSlow };
            Kind kind = Kind::fileStall;
            std::string path;
            double seconds = 0;
            friend bool operator==(const StallNotice&, const StallNotice&) = default;
        };

        double overallProgress = 0;  // 0…1
        std::string etaText;
        std::vector<RunPhase> phases;
        bool isPaused = false;
        bool pausePending = false;
        bool isCancelling = false;
        std::uint64_t bytesCompleted = 0, bytesTotal = 0, filesCompleted = 0, filesTotal = 0;
        std::uint64_t ratePerSec = 0;
        std::int64_t etaSeconds = -1;
        bool isEstimating = true;
        std::string currentPath;
        bool deleteBackpressure = false;
        std::int64_t itemsDeleted = 0;
        bool copyInFlight = false;
        std::string copyPath, scanPath;
        bool walkDone = false;
        std::uint64_t bytesCopied = 0, bytesUpToDate = 0;
        std::int64_t dirsRetimeChecked = 0, dirsRetimeTotal = 0;
        std::optional<StallNotice> stallNotice;
        std::optional<ScanModeInfo> scanMode;
        std::optional<std::string> statusHint;
        bool isCatchup = false;
        bool isOneTimeOSUpdate = false;
        std::optional<Failure> failure;
        friend bool operator==(const RunningState&, const RunningState&) = default;
    };

    // What the server's resolver last said about one side's binding.
    struct BindingResolutionView {
        enum class Kind { ok, pending, unresolved, suspicious };
        Kind kind = Kind::pending;
        std::string detail;  // the reason, or the mismatched facts
        friend bool operator==(const BindingResolutionView&, const BindingResolutionView&) = default;
    };

    std::string id;  // the job's UUID text
    std::string name;
    bool nameUserSet = false;
    std::string statusChip;
    std::string sourceName, destinationName;
    std::optional<std::string> sourceBsd, destinationBsd;
    std::string sourceFsFamily, destinationFsFamily;
    std::optional<std::string> sourceSubpath, destinationSubpath;
    std::optional<std::string> sourceNetworkURL, destinationNetworkURL;
    bool destinationIsDiskImage = false;
    int runsAtCurrentDestination = 0;
    std::vector<HistoryRun> runHistory;
    int successStreak = 0;
    Schedule schedule;
    Face face = Face::configured;
    std::optional<RunningState> running;
    CopyMode copyMode = CopyMode::smartUpdate;
    std::string copyRuleFilename;
    OnSuccessChoice onSuccess;
    std::optional<ShortcutChoice> shortcut;
    BindingResolutionView sourceBindingState, destinationBindingState;
    bool asBootable = false;
    std::optional<std::int64_t> sortOrder;

    // The client's view of a server record. `copy_rule_filename` falls back to the built-in rule
    // the legacy `copy_script` names; every run record becomes a history entry.
    static Tile fromWire(const ql4::transport::v1::CopyTile& tile);
    static HistoryRun historyFromWire(const ql4::transport::v1::RunRecord& record);

    static CopyMode copyModeFromWire(ql4::transport::v1::CopyMode mode);
    static ql4::transport::v1::CopyMode toWire(CopyMode mode);
    // "Smart Update", "Copy Newer", "Copy Different", "Erase, then copy".
    static std::string displayName(CopyMode mode);
    // The built-in copy rules' file names: "Backup - all files.dset" and the others.
    static std::string builtInRuleFile(ql4::transport::v1::CopyScript script);
    // The rule's name as shown: the file name without ".dset"; "Backup - all files" for none.
    static std::string ruleDisplayName(const std::string& fileName);
};

}  // namespace ql
