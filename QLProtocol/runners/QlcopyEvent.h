#pragma once

#include "QLProtocol/runners/QlcopyEventDecodeError.h"
#include "QLSupport/Json.h"

#include <tl/expected.hpp>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ql {

// One line of the copy engine's event stream (a JSON object per line on descriptor 3). Every
// field but `type` is optional, and absence is kept apart from zero: an engine that does not
// report `workDoneBytes` is not an engine that has done no work. Keys this build does not know
// are ignored, so a newer engine may add some.
struct QlcopyEvent {
    enum class Kind {
        progress,        // "progress"
        summary,         // "summary"
        stall,           // "stall"
        slow,            // "slow"
        failure,         // "failure"
        warning,         // "warning"
        info,            // "info"
        terminated,      // "terminated"
        phaseStarted,    // "phase_started"
        phaseCompleted,  // "phase_completed"
        scanMode,        // "scan_mode"
        item,            // "item"
    };
    static constexpr Kind kAllKinds[] = {Kind::progress,   Kind::summary,      Kind::stall,          Kind::slow,
                                         Kind::failure,    Kind::warning,      Kind::info,           Kind::terminated,
                                         Kind::phaseStarted, Kind::phaseCompleted, Kind::scanMode,   Kind::item};

    // The JSON value of "type" for a kind, and back.
    static std::string_view kindName(Kind kind);
    static std::optional<Kind> kindNamed(std::string_view name);

    Kind type = Kind::progress;

    std::optional<std::int64_t> ts;
    std::optional<double> elapsedS;
    // Progress.
    std::optional<std::int64_t> filesEvaluated;
    std::optional<std::int64_t> bytesEvaluated;
    std::optional<std::int64_t> filesCompleted;
    std::optional<std::int64_t> bytesCopied;
    std::optional<std::int64_t> scoutTotalFiles;
    std::optional<std::int64_t> scoutTotalBytes;
    std::optional<bool> scoutDone;
    std::optional<double> rateEffectiveBps;
    std::optional<double> rateWindowBps;
    std::optional<bool> rateWindowValid;
    std::optional<std::int64_t> etaSeconds;
    std::optional<std::string> currentScanPath;
    std::optional<std::string> currentCopyPath;
    std::optional<std::int64_t> srcIsSolidState;  // non-zero: solid state
    std::optional<std::int64_t> dstIsSolidState;
    std::optional<double> copyRatioCum;
    std::optional<std::int64_t> etaSelectedSeconds;
    std::optional<std::int64_t> bytesSkipped;
    std::optional<std::int64_t> filesSkipped;
    std::optional<std::int64_t> workDoneBytes;
    std::optional<bool> deleteBackpressure;
    std::optional<bool> copyInFlight;
    std::optional<bool> walkDone;
    std::optional<std::int64_t> dirsRetimeChecked;
    std::optional<std::int64_t> dirsRetimeTotal;
    std::optional<std::int64_t> dirsRetimeRestamped;
    // Summary.
    std::optional<std::int64_t> itemsEvaluated;
    std::optional<std::int64_t> itemsCopied;
    std::optional<std::int64_t> itemsUpdatedMetaOnly;
    std::optional<std::int64_t> itemsDeleted;
    std::optional<double> effectiveRateBps;
    std::optional<std::int32_t> errors;
    std::optional<std::int32_t> ignoredErrors;
    std::optional<std::map<std::string, std::int32_t>> metaReasons;
    std::optional<std::int64_t> deferredCount;
    std::optional<std::vector<std::string>> deferredPaths;
    std::optional<std::string> firstErrorPath;
    std::optional<std::string> firstErrorSyscall;
    std::optional<std::string> firstErrorSide;
    std::optional<std::int32_t> firstErrorErrno;
    std::optional<std::int64_t> firstErrorUnixNanos;
    std::optional<bool> interrupted;
    // Scan mode.
    std::optional<std::string> mode;
    std::optional<std::string> reason;
    // Preview item.
    std::optional<std::string> side;
    std::optional<std::string> action;
    std::optional<bool> sel;
    std::optional<bool> dir;
    // Failure, warning and info.
    std::optional<std::string> kind;
    std::optional<std::string> message;
    std::optional<std::string> path;
    std::optional<std::int32_t> errnoValue;
    // Stall and slow directory.
    std::optional<std::string> subject;
    std::optional<double> stalledS;
    std::optional<double> inDirS;
    std::optional<std::int64_t> entriesSeen;
    // Terminated (and stall).
    std::optional<std::int32_t> signal;
    std::optional<std::string> scannerPath;
    std::optional<std::string> executorPath;

    // The event of one line: nothing for a blank line, otherwise the event or why the line is not
    // one. A key whose value is null reads as absent. Integer fields take JSON integers (and
    // floating-point numbers with an integral value) within the field's range; the solid-state
    // fields also take true and false.
    using DecodeResult = tl::expected<std::optional<QlcopyEvent>, QlcopyEventDecodeError>;
    static DecodeResult decode(std::string_view line);

    // The event as the engine writes it: "type" and every present field under its key.
    Json toJson() const;

    friend bool operator==(const QlcopyEvent&, const QlcopyEvent&) = default;
};

}  // namespace ql
