#include "app/core/Tile.h"

#include "app/core/DisplayFormat.h"

#include <algorithm>

namespace ql {

namespace wire = ql4::transport::v1;

namespace {

std::optional<std::string> nonEmpty(const std::string& text) {
    if (text.empty()) return std::nullopt;
    return text;
}

Tile::BindingResolutionView bindingView(const wire::BindingState& state) {
    Tile::BindingResolutionView view;
    switch (state.kind()) {
        case wire::BindingState::KIND_OK: view.kind = Tile::BindingResolutionView::Kind::ok; break;
        case wire::BindingState::KIND_SUSPICIOUS: {
            view.kind = Tile::BindingResolutionView::Kind::suspicious;
            for (const auto& m : state.mismatches()) {
                if (!view.detail.empty()) view.detail += "; ";
                view.detail += m.field() + ": expected " + m.expected() + ", found " + m.actual();
            }
            break;
        }
        case wire::BindingState::KIND_UNRESOLVED: {
            view.kind = Tile::BindingResolutionView::Kind::unresolved;
            switch (state.unresolved_reason()) {
                case wire::UR_NOT_ATTACHED: view.detail = "notAttached"; break;
                case wire::UR_UNSUPPORTED_KEY: view.detail = "unsupportedKey"; break;
                case wire::UR_PROBE_FAILED: view.detail = "probeFailed"; break;
                case wire::UR_VOLUME_MISSING: view.detail = "volumeMissing"; break;
                default: view.detail = "unknown"; break;
            }
            break;
        }
        default: view.kind = Tile::BindingResolutionView::Kind::pending; break;
    }
    return view;
}

}  // namespace

Tile::CopyMode Tile::copyModeFromWire(wire::CopyMode mode) {
    switch (mode) {
        case wire::COPY_MODE_COPY_NEWER: return CopyMode::copyNewer;
        case wire::COPY_MODE_COPY_DIFFERENT: return CopyMode::copyDifferent;
        case wire::COPY_MODE_ERASE_THEN_COPY: return CopyMode::eraseThenCopy;
        default: return CopyMode::smartUpdate;
    }
}

wire::CopyMode Tile::toWire(CopyMode mode) {
    switch (mode) {
        case CopyMode::smartUpdate: return wire::COPY_MODE_SMART_UPDATE;
        case CopyMode::copyNewer: return wire::COPY_MODE_COPY_NEWER;
        case CopyMode::copyDifferent: return wire::COPY_MODE_COPY_DIFFERENT;
        case CopyMode::eraseThenCopy: return wire::COPY_MODE_ERASE_THEN_COPY;
    }
    return wire::COPY_MODE_SMART_UPDATE;
}

std::string Tile::displayName(CopyMode mode) {
    switch (mode) {
        case CopyMode::smartUpdate: return "Smart Update";
        case CopyMode::copyNewer: return "Copy Newer";
        case CopyMode::copyDifferent: return "Copy Different";
        case CopyMode::eraseThenCopy: return "Erase, then copy";
    }
    return "Smart Update";
}

std::string Tile::builtInRuleFile(wire::CopyScript script) {
    switch (script) {
        case wire::COPY_SCRIPT_BACKUP_YOUR_DATA: return "Backup - your data.dset";
        case wire::COPY_SCRIPT_BACKUP_SELECTED_FOLDERS: return "Backup - selected folders.dset";
        default: return "Backup - all files.dset";
    }
}

std::string Tile::ruleDisplayName(const std::string& fileName) {
    if (fileName.empty()) return "Backup - all files";
    const std::string suffix = ".dset";
    if (fileName.size() > suffix.size() && fileName.compare(fileName.size() - suffix.size(), suffix.size(), suffix) == 0) {
        return fileName.substr(0, fileName.size() - suffix.size());
    }
    return fileName;
}

Tile::HistoryRun Tile::historyFromWire(const wire::RunRecord& r) {
    HistoryRun h;
    h.id = r.id();
    switch (r.outcome()) {
        case wire::RunRecord::OUTCOME_SUCCEEDED: h.outcome = HistoryRun::Outcome::ok; break;
        case wire::RunRecord::OUTCOME_CANCELLED: h.outcome = HistoryRun::Outcome::cancelled; break;
        case wire::RunRecord::OUTCOME_WRONG_DRIVE:
            h.outcome = HistoryRun::Outcome::failed;
            h.reason = "The connected destination is not the drive this job copies to.";
            break;
        case wire::RunRecord::OUTCOME_DESTINATION_NOT_CONNECTED:
            h.outcome = HistoryRun::Outcome::failed;
            h.reason = "Destination not connected";
            break;
        default:
            h.outcome = HistoryRun::Outcome::failed;
            h.reason = r.summary();
            break;
    }
    h.when = fromUnixNanos(r.ended_at_unix_nanos() ? r.ended_at_unix_nanos() : r.started_at_unix_nanos());
    h.bytesText = DisplayFormat::bytes(static_cast<std::uint64_t>(std::max<std::int64_t>(0, r.bytes_copied())));
    if (r.ended_at_unix_nanos() > r.started_at_unix_nanos()) {
        h.durationText = DisplayFormat::duration(static_cast<double>(r.ended_at_unix_nanos() - r.started_at_unix_nanos()) / 1e9);
    }
    h.logContent = r.log_content();
    auto count = [](std::int64_t n) { return static_cast<std::uint64_t>(std::max<std::int64_t>(0, n)); };
    h.filesCopied = count(r.items_copied());
    h.filesUpdated = count(r.items_updated());
    h.filesDeleted = count(r.items_deleted());
    h.itemsEvaluated = count(r.items_evaluated());
    h.bytesEvaluated = count(r.bytes_evaluated());
    h.bytesCopied = count(r.bytes_copied());
    if (r.has_as_bootable()) h.ranBootable = r.as_bootable();
    if (r.has_copy_mode()) h.ranMode = copyModeFromWire(r.copy_mode());
    h.ranSourceName = nonEmpty(r.source_display_name());
    h.ranDestinationName = nonEmpty(r.destination_display_name());
    if (r.has_ran_source_subpath()) h.ranSourceSubpath = r.ran_source_subpath();
    if (r.has_ran_destination_subpath()) h.ranDestinationSubpath = r.ran_destination_subpath();
    h.isCatchup = r.is_catchup();
    h.isOneTimeOSUpdate = r.one_time_os_update();
    h.deferredCount = r.deferred_count();
    if (!r.failed_path().empty() || !r.failed_syscall().empty() || r.failed_errno() != 0) {
        h.failure = Failure{r.failed_path(), r.failed_syscall(), r.failed_side(), r.failed_errno(), r.failed_error_count()};
    }
    return h;
}

Tile Tile::fromWire(const wire::CopyTile& w) {
    Tile t;
    t.id = w.id();
    t.name = w.name();
    t.nameUserSet = w.name_user_set();
    t.copyMode = copyModeFromWire(w.copy_mode());
    t.copyRuleFilename = w.copy_rule_filename().empty() ? builtInRuleFile(w.copy_script()) : w.copy_rule_filename();
    switch (w.on_success().power_action()) {
        case wire::POWER_ACTION_SLEEP: t.onSuccess.powerAction = OnSuccessChoice::PowerAction::sleep; break;
        case wire::POWER_ACTION_RESTART: t.onSuccess.powerAction = OnSuccessChoice::PowerAction::restart; break;
        case wire::POWER_ACTION_SHUTDOWN: t.onSuccess.powerAction = OnSuccessChoice::PowerAction::shutdown; break;
        default: break;
    }
    for (int a : w.on_success().additional()) {
        if (a == wire::ADDITIONAL_ACTION_EJECT_DESTINATION) t.onSuccess.additional.insert(OnSuccessChoice::AdditionalAction::ejectDestination);
        if (a == wire::ADDITIONAL_ACTION_EJECT_SOURCE) t.onSuccess.additional.insert(OnSuccessChoice::AdditionalAction::ejectSource);
        if (a == wire::ADDITIONAL_ACTION_NOTIFY) t.onSuccess.additional.insert(OnSuccessChoice::AdditionalAction::notify);
    }
    if (!w.shortcut().name().empty()) t.shortcut = ShortcutChoice{w.shortcut().name(), w.shortcut().setup_data()};
    t.asBootable = w.as_bootable();
    const auto& s = w.schedule();
    t.schedule.scheduleOn = s.schedule_on();
    t.schedule.mountOn = s.mount_on();
    t.schedule.days.insert(s.days().begin(), s.days().end());
    t.schedule.weeks.insert(s.weeks().begin(), s.weeks().end());
    t.schedule.minuteOfDay = s.minute_of_day();
    t.sourceName = w.source().display_name();
    t.destinationName = w.destination().display_name();
    t.sourceBsd = nonEmpty(w.source().bsd_device_hint());
    t.destinationBsd = nonEmpty(w.destination().bsd_device_hint());
    t.sourceFsFamily = w.source().filesystem_family();
    t.destinationFsFamily = w.destination().filesystem_family();
    t.sourceSubpath = nonEmpty(w.source().subpath());
    t.destinationSubpath = nonEmpty(w.destination().subpath());
    t.sourceNetworkURL = nonEmpty(w.source().network_url());
    t.destinationNetworkURL = nonEmpty(w.destination().network_url());
    t.destinationIsDiskImage = w.destination().has_disk_image();
    t.runsAtCurrentDestination = static_cast<int>(w.runs_at_current_destination());
    for (const auto& r : w.recent_runs()) t.runHistory.push_back(historyFromWire(r));
    // The store appends runs; the client shows the most recent first.
    std::stable_sort(t.runHistory.begin(), t.runHistory.end(),
                     [](const HistoryRun& a, const HistoryRun& b) { return a.when > b.when; });
    t.successStreak = static_cast<int>(w.success_streak());
    if (w.has_sort_order()) t.sortOrder = w.sort_order();
    t.sourceBindingState = bindingView(w.source_binding_state());
    t.destinationBindingState = bindingView(w.destination_binding_state());
    return t;
}

}  // namespace ql
