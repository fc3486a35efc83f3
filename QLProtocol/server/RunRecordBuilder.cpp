#include "QLProtocol/server/RunRecordBuilder.h"

#include "QLSupport/Iso8601.h"

#include <fmt/format.h>

namespace ql {
namespace v1 = ql4::transport::v1;

std::string RunRecordBuilder::formatDuration(Duration elapsed) {
    using namespace std::chrono;
    if (elapsed < Duration::zero()) elapsed = Duration::zero();
    if (elapsed < seconds(10)) return fmt::format("{:.1f}s", duration<double>(elapsed).count());
    auto total = duration_cast<seconds>(elapsed).count();
    auto h = total / 3600, m = (total % 3600) / 60, s = total % 60;
    if (h > 0) return fmt::format("{}h {:02}m {:02}s", h, m, s);
    if (m > 0) return fmt::format("{}m {:02}s", m, s);
    return fmt::format("{}s", s);
}

std::string RunRecordBuilder::summary(const v1::ClonerEvent& terminal, Duration elapsed) {
    switch (terminal.payload_case()) {
        case v1::ClonerEvent::kCompleted: {
            const auto& c = terminal.completed();
            if (c.elapsed_nanos() > 0) elapsed = Duration(c.elapsed_nanos());
            std::string text = fmt::format("Copied {} bytes in {}", c.bytes_copied(), formatDuration(elapsed));
            if (c.deferred_count() > 0)
                text += fmt::format("; {} locked file{} skipped and deferred to an automatic follow-up run",
                                    c.deferred_count(), c.deferred_count() == 1 ? "" : "s");
            return text;
        }
        case v1::ClonerEvent::kCancelled: return "Cancelled by user";
        case v1::ClonerEvent::kFailed: {
            const auto& f = terminal.failed();
            if (f.failed_phase().empty()) return "Failed: " + f.error_message();
            return fmt::format("Failed in {}: {}", f.failed_phase(), f.error_message());
        }
        default: return "Ended without a result";
    }
}

std::optional<v1::CopyMode> RunRecordBuilder::copyMode(v1::DuringCopyMethod method) {
    switch (method) {
        case v1::DCM_SMART_UPDATE: return v1::COPY_MODE_SMART_UPDATE;
        case v1::DCM_COPY_NEWER: return v1::COPY_MODE_COPY_NEWER;
        case v1::DCM_COPY_DIFFERENT: return v1::COPY_MODE_COPY_DIFFERENT;
        case v1::DCM_ERASE_THEN_COPY: return v1::COPY_MODE_ERASE_THEN_COPY;
        default: return std::nullopt;
    }
}

v1::RunRecord RunRecordBuilder::build(const Facts& facts, const v1::ClonerEvent& terminal, std::string logContent) {
    v1::RunRecord r;
    r.set_id(facts.runID);
    r.set_tile_id(facts.tileID);
    r.set_started_at_unix_nanos(toUnixNanos(facts.startedAt));
    r.set_ended_at_unix_nanos(toUnixNanos(facts.endedAt));
    r.set_summary(summary(terminal, facts.endedAt - facts.startedAt));
    r.set_log_content(std::move(logContent));
    r.set_is_catchup(facts.isCatchup);
    r.set_one_time_os_update(facts.isOneTimeOSUpdate);
    r.set_as_bootable(facts.asBootable);
    if (auto mode = copyMode(facts.duringCopy)) r.set_copy_mode(*mode);
    r.set_source_display_name(facts.sourceDisplayName);
    r.set_destination_display_name(facts.destinationDisplayName);
    if (facts.sourceSubpath) r.set_ran_source_subpath(*facts.sourceSubpath);
    if (facts.destinationSubpath) r.set_ran_destination_subpath(*facts.destinationSubpath);
    r.set_bytes_copied(facts.bytesCopied);

    switch (terminal.payload_case()) {
        case v1::ClonerEvent::kCompleted: {
            const auto& c = terminal.completed();
            r.set_outcome(v1::RunRecord::OUTCOME_SUCCEEDED);
            r.set_bytes_copied(c.bytes_copied());
            r.set_items_copied(c.items_copied());
            r.set_items_updated(c.items_updated_meta_only());
            r.set_items_deleted(c.items_deleted());
            r.set_items_evaluated(c.items_evaluated());
            r.set_bytes_evaluated(c.bytes_evaluated());
            r.set_deferred_count(c.deferred_count());
            r.set_engine_stats(c.engine_stats());
            r.set_errors(c.errors());
            r.set_ignored_errors(c.ignored_errors());
            r.set_effective_rate_bps(c.effective_rate_bps());
            if (c.has_scout_total_files()) r.set_scout_total_files(c.scout_total_files());
            if (c.has_scout_total_bytes()) r.set_scout_total_bytes(c.scout_total_bytes());
            break;
        }
        case v1::ClonerEvent::kFailed: {
            const auto& f = terminal.failed();
            r.set_outcome(f.destination_not_connected() ? v1::RunRecord::OUTCOME_DESTINATION_NOT_CONNECTED
                                                        : v1::RunRecord::OUTCOME_FAILED);
            r.set_failed_path(f.failed_path());
            r.set_failed_syscall(f.failed_syscall());
            r.set_failed_side(f.failed_side());
            r.set_failed_errno(f.failed_errno());
            r.set_failed_error_count(f.error_count());
            r.set_failed_at_unix_nanos(f.failed_at_unix_nanos() != 0 ? f.failed_at_unix_nanos()
                                                                      : toUnixNanos(facts.endedAt));
            break;
        }
        case v1::ClonerEvent::kCancelled: r.set_outcome(v1::RunRecord::OUTCOME_CANCELLED); break;
        default: r.set_outcome(v1::RunRecord::OUTCOME_FAILED); break;
    }
    return r;
}

}  // namespace ql
