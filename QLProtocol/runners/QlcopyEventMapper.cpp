#include "QLProtocol/runners/QlcopyEventMapper.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>

namespace ql {
namespace {

namespace wire = ql4::transport::v1;
using Kind = QlcopyEvent::Kind;

template <typename T>
T or0(const std::optional<T>& v) {
    return v.value_or(T{});
}

std::string orEmpty(const std::optional<std::string>& v) { return v.value_or(std::string()); }

std::int32_t clampToInt32(std::int64_t v) {
    return static_cast<std::int32_t>(
        std::clamp<std::int64_t>(v, std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int32_t>::max()));
}

// Seconds to whole nanoseconds, truncated; saturates instead of overflowing.
std::int64_t nanosFromSeconds(double seconds) {
    if (!std::isfinite(seconds)) return 0;
    double nanos = std::trunc(seconds * 1e9);
    constexpr double limit = 9223372036854775808.0;  // 2^63
    if (nanos >= limit) return std::numeric_limits<std::int64_t>::max();
    if (nanos < -limit) return std::numeric_limits<std::int64_t>::min();
    return static_cast<std::int64_t>(nanos);
}

wire::ClonerEvent logEvent(wire::LogLine::Level level, std::string text) {
    wire::ClonerEvent event;
    auto* log = event.mutable_log();
    log->set_level(level);
    log->set_text(std::move(text));
    return event;
}

}  // namespace

wire::Progress QlcopyEventMapper::progressPayload(const QlcopyEvent& e) {
    wire::Progress p;
    p.set_files_copied(or0(e.filesCompleted));
    p.set_files_total(or0(e.scoutTotalFiles));
    p.set_bytes_copied(or0(e.bytesCopied));
    p.set_bytes_total(or0(e.scoutTotalBytes));
    p.set_current_path(orEmpty(e.currentCopyPath));
    p.set_elapsed_s(or0(e.elapsedS));
    p.set_files_evaluated(or0(e.filesEvaluated));
    p.set_bytes_evaluated(or0(e.bytesEvaluated));
    p.set_scout_total_files(or0(e.scoutTotalFiles));
    p.set_scout_total_bytes(or0(e.scoutTotalBytes));
    p.set_scout_done(or0(e.scoutDone));
    p.set_rate_effective_bps(or0(e.rateEffectiveBps));
    p.set_rate_window_bps(or0(e.rateWindowBps));
    p.set_rate_window_valid(or0(e.rateWindowValid));
    p.set_eta_seconds(or0(e.etaSeconds));
    p.set_current_scan_path(orEmpty(e.currentScanPath));
    p.set_current_copy_path(orEmpty(e.currentCopyPath));
    p.set_src_is_solid_state(or0(e.srcIsSolidState) != 0);
    p.set_dst_is_solid_state(or0(e.dstIsSolidState) != 0);
    p.set_copy_ratio_cum(or0(e.copyRatioCum));
    p.set_eta_selected_seconds(or0(e.etaSelectedSeconds));
    p.set_bytes_skipped(or0(e.bytesSkipped));
    p.set_files_skipped(or0(e.filesSkipped));
    // Absent stays absent: the client then measures work by what was evaluated.
    if (e.workDoneBytes) p.set_work_done_bytes(*e.workDoneBytes);
    p.set_delete_backpressure(or0(e.deleteBackpressure));
    p.set_items_deleted(or0(e.itemsDeleted));
    p.set_dirs_retime_checked(or0(e.dirsRetimeChecked));
    p.set_dirs_retime_total(or0(e.dirsRetimeTotal));
    p.set_copy_in_flight(or0(e.copyInFlight));
    p.set_walk_done(or0(e.walkDone));
    return p;
}

wire::RunCompleted QlcopyEventMapper::completedPayload(const QlcopyEvent& e) {
    wire::RunCompleted c;
    c.set_elapsed_nanos(nanosFromSeconds(or0(e.elapsedS)));
    c.set_bytes_copied(or0(e.bytesCopied));
    c.set_items_evaluated(or0(e.itemsEvaluated));
    c.set_bytes_evaluated(or0(e.bytesEvaluated));
    c.set_items_copied(or0(e.itemsCopied));
    c.set_items_updated_meta_only(or0(e.itemsUpdatedMetaOnly));
    c.set_items_deleted(or0(e.itemsDeleted));
    c.set_effective_rate_bps(or0(e.effectiveRateBps));
    c.set_errors(or0(e.errors));
    c.set_ignored_errors(or0(e.ignoredErrors));
    if (e.metaReasons) {
        for (const auto& [reason, count] : *e.metaReasons) (*c.mutable_meta_reasons())[reason] = count;
    }
    c.set_deferred_count(clampToInt32(or0(e.deferredCount)));
    if (e.deferredPaths) {
        for (const auto& path : *e.deferredPaths) c.add_deferred_paths(path);
    }
    c.set_dirs_retime_total(or0(e.dirsRetimeTotal));
    c.set_dirs_retime_restamped(or0(e.dirsRetimeRestamped));
    // The sizing totals keep their presence on the wire: a summary without them says nothing
    // about the totals, which is not the same as an empty source.
    if (e.scoutTotalFiles) c.set_scout_total_files(*e.scoutTotalFiles);
    if (e.scoutTotalBytes) c.set_scout_total_bytes(*e.scoutTotalBytes);
    c.set_engine_stats(true);
    return c;
}

wire::RunFailed QlcopyEventMapper::failurePayload(const QlcopyEvent& e) {
    std::string message = e.message.value_or("qlcopy failure");
    if (e.path && !e.path->empty()) message += fmt::format(" (path: {})", *e.path);
    if (e.errnoValue) message += fmt::format(" [errno={}]", *e.errnoValue);

    wire::RunFailed f;
    f.set_error_message(std::move(message));
    f.set_failed_phase(e.kind.value_or(kCopyPhase));
    f.set_failed_path(orEmpty(e.path));
    f.set_failed_errno(or0(e.errnoValue));
    return f;
}

wire::RunFailed QlcopyEventMapper::summaryFailurePayload(const QlcopyEvent& e) {
    const std::int32_t count = or0(e.errors);
    wire::RunFailed f;
    f.set_error_message(
        fmt::format("The copy reported {} error{} (see log for details)", count, count == 1 ? "" : "s"));
    f.set_failed_phase(kCopyPhase);
    f.set_failed_path(orEmpty(e.firstErrorPath));
    f.set_failed_syscall(orEmpty(e.firstErrorSyscall));
    f.set_failed_side(orEmpty(e.firstErrorSide));
    f.set_failed_errno(or0(e.firstErrorErrno));
    f.set_failed_at_unix_nanos(or0(e.firstErrorUnixNanos));
    f.set_error_count(count);
    return f;
}

wire::PreviewItem QlcopyEventMapper::previewItemPayload(const QlcopyEvent& e) {
    const bool source = e.side && *e.side == "src";
    wire::PreviewItem item;
    item.set_side(source ? wire::PreviewItem::SIDE_SOURCE : wire::PreviewItem::SIDE_DEST);
    item.set_path(orEmpty(e.path));
    if (e.action) {
        item.set_action(*e.action);
    } else if (source && e.sel && !*e.sel) {
        // A source item the rules did not select is one the copy will pass over.
        item.set_action("skip");
    }
    item.set_reason(orEmpty(e.reason));
    item.set_is_directory(or0(e.dir));
    return item;
}

wire::ScanMode QlcopyEventMapper::scanModePayload(const QlcopyEvent& e) {
    wire::ScanMode s;
    s.set_mode(e.mode && *e.mode == "incremental" ? wire::ScanMode::MODE_INCREMENTAL : wire::ScanMode::MODE_FULL);
    const std::string reason = orEmpty(e.reason);
    auto r = wire::ScanMode::REASON_UNSPECIFIED;
    if (reason == "incremental") r = wire::ScanMode::REASON_INCREMENTAL;
    else if (reason == "first_run") r = wire::ScanMode::REASON_FIRST_RUN;
    else if (reason == "history_expired") r = wire::ScanMode::REASON_HISTORY_EXPIRED;
    else if (reason == "rules_changed") r = wire::ScanMode::REASON_RULES_CHANGED;
    else if (reason == "forced") r = wire::ScanMode::REASON_FORCED;
    s.set_reason(r);
    return s;
}

QlcopyEventMapper::Mapped QlcopyEventMapper::map(const QlcopyEvent& e) {
    Mapped mapped;
    wire::ClonerEvent out;
    switch (e.type) {
        case Kind::progress:
            *out.mutable_progress() = progressPayload(e);
            break;
        case Kind::item:
            *out.mutable_preview_item() = previewItemPayload(e);
            break;
        case Kind::scanMode:
            *out.mutable_scan_mode() = scanModePayload(e);
            break;
        case Kind::phaseStarted:
            out = logEvent(wire::LogLine::LEVEL_INFO, "[qlcopy-phase] main work started");
            break;
        case Kind::phaseCompleted:
            out = logEvent(wire::LogLine::LEVEL_INFO, "[qlcopy-phase] main work completed");
            break;
        case Kind::stall:
            out = logEvent(wire::LogLine::LEVEL_WARNING,
                           fmt::format("stall: subject={} stalled_s={} path={}", e.subject.value_or("?"),
                                       or0(e.stalledS), orEmpty(e.path)));
            break;
        case Kind::slow:
            out = logEvent(wire::LogLine::LEVEL_WARNING,
                           fmt::format("slow: subject={} in_dir_s={} entries={} path={}", e.subject.value_or("?"),
                                       or0(e.inDirS), or0(e.entriesSeen), orEmpty(e.path)));
            break;
        case Kind::warning:
            out = logEvent(wire::LogLine::LEVEL_WARNING,
                           fmt::format("[{}] {}", e.kind.value_or("warning"), orEmpty(e.message)));
            break;
        case Kind::info:
            out = logEvent(wire::LogLine::LEVEL_INFO, fmt::format("[{}] {}", e.kind.value_or("info"), orEmpty(e.message)));
            break;
        case Kind::failure:
            *out.mutable_failed() = failurePayload(e);
            mapped.isTerminal = true;
            break;
        case Kind::summary:
            if (e.errors && *e.errors > 0) {
                *out.mutable_failed() = summaryFailurePayload(e);
            } else {
                *out.mutable_completed() = completedPayload(e);
            }
            mapped.isTerminal = true;
            break;
        case Kind::terminated:
            mapped.isTerminal = true;
            return mapped;
    }
    mapped.payload = std::move(out);
    return mapped;
}

}  // namespace ql
