#pragma once

#include "QLModel/RunPhaseModel.h"
#include "QLProtocol/proto/runs.pb.h"
#include "app/core/Tile.h"

#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace ql {

// Applies the events of one run to its job as the client shows it: the face, the live running
// state (phases and steps, the progress fraction, rate, time left, the current file, pause
// state, stall notices and waiting hints), the run's log, and when the run ends the history
// entry with its outcome. A run the user cancelled ends as cancelled whatever its terminal event
// says.
class RunTracker {
public:
    enum class Change { none, queued, started, phases, progress, pause, scanMode, log, hint, ended };

    // How a stall hint changes the notice.
    struct StallNoticeUpdate {
        enum class Kind { set, keep, clear };
        Kind kind = Kind::keep;
        Tile::RunningState::StallNotice notice;
    };

    explicit RunTracker(Tile tile);

    // Applies one event; events of another run than the first one seen are ignored, as are
    // events without a payload and every event after the terminal one.
    Change apply(const ql4::transport::v1::ClonerEvent& event);

    // The user asked to stop the run: its end is shown as cancelled.
    void markUserCancelled();

    const Tile& tile() const { return tile_; }
    // The run's id as UUID text ("" until the first event).
    const std::string& runID() const { return runID_; }
    const std::string& runIDBytes() const { return runIDBytes_; }
    bool ended() const { return ended_; }
    bool userCancelled() const { return userCancelled_; }
    // Everything the run logged, one line each.
    const std::string& log() const { return log_; }
    // While queued: the position (from 1) and the job whose run blocks this one, when named.
    int queuePosition() const { return queuePosition_; }
    const std::string& queuedBlockerTileID() const { return queuedBlockerTileID_; }
    // The history entry of the finished run.
    const std::optional<Tile::HistoryRun>& lastRun() const { return lastRun_; }
    // The terminal payloads as received.
    const std::optional<ql4::transport::v1::RunCompleted>& completed() const { return completed_; }
    const std::optional<ql4::transport::v1::RunFailed>& failed() const { return failed_; }
    // The running state as it stood when the run ended (the job's own is cleared then).
    const Tile::RunningState* lastState() const { return lastState_ ? &*lastState_ : nullptr; }
    // The error message of a step that failed, for the failure box.
    const std::string& failedStepMessage() const { return failedStepMessage_; }

    // The notice an engine hint line gives: "stall: … stalled_s=12.5 path=/a/b" a file stall,
    // "slow: … in_dir_s=40 … path=/dir" a slow scan, "scanner_stuck" a stuck scan; anything
    // else keeps the current notice.
    static StallNoticeUpdate stallUpdate(std::string_view hint);
    // Whether a log line is one of the engine's hints.
    static bool isHint(std::string_view text);
    // The texts a notice shows: "Still working — 12 seconds and counting…" under "Copying large
    // file"; "Still scanning /dir".
    static std::string stallTitle(const Tile::RunningState::StallNotice& notice);
    static std::string stallText(const Tile::RunningState::StallNotice& notice);
    // The scan-mode label shown under the running job (empty for an incremental scan).
    static std::string scanModeLabel(Tile::RunningState::ScanModeInfo mode);

private:
    void ensureRunning();
    void end(Tile::HistoryRun::Outcome outcome, std::string reason, std::int64_t elapsedNanos);

    Tile tile_;
    std::string runID_;
    std::string runIDBytes_;
    bool ended_ = false;
    bool userCancelled_ = false;
    std::string log_;
    int queuePosition_ = 0;
    std::string queuedBlockerTileID_;
    std::optional<Tile::HistoryRun> lastRun_;
    std::optional<ql4::transport::v1::RunCompleted> completed_;
    std::optional<ql4::transport::v1::RunFailed> failed_;
    std::string failedStepMessage_;
    std::optional<Tile::RunningState> lastState_;
    std::int64_t startedAtNanos_ = 0;
    std::string stallMark_;
};

}  // namespace ql
