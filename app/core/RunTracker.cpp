#include "app/core/RunTracker.h"

#include "QLProtocol/runners/ProgressModel.h"
#include "QLProtocol/server/RunIdText.h"
#include "app/core/DisplayFormat.h"

#include <fmt/format.h>

#include <cmath>
#include <cstdlib>

namespace ql {

namespace wire = ql4::transport::v1;

namespace {

std::string progressMark(const wire::Progress& p) {
    return fmt::format("{}/{}/{}/{}/{}", p.files_copied(), p.bytes_copied(), p.files_evaluated(), p.bytes_evaluated(),
                       p.current_path());
}

// The number after `key` up to the next space.
std::optional<double> numberAfter(std::string_view text, std::string_view key) {
    auto at = text.find(key);
    if (at == std::string_view::npos) return std::nullopt;
    auto start = at + key.size();
    auto end = text.find(' ', start);
    std::string value(text.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start));
    char* stop = nullptr;
    double number = std::strtod(value.c_str(), &stop);
    if (stop == value.c_str()) return std::nullopt;
    return number;
}

}  // namespace

RunTracker::RunTracker(Tile tile) : tile_(std::move(tile)) {}

void RunTracker::markUserCancelled() {
    userCancelled_ = true;
    if (tile_.running) tile_.running->isCancelling = true;
}

bool RunTracker::isHint(std::string_view text) {
    return text.substr(0, 7) == "stall: " || text.substr(0, 6) == "slow: " || text == "scanner_stuck";
}

RunTracker::StallNoticeUpdate RunTracker::stallUpdate(std::string_view hint) {
    StallNoticeUpdate update;
    auto pathOf = [](std::string_view text) -> std::string {
        auto at = text.find(" path=");
        return at == std::string_view::npos ? std::string() : std::string(text.substr(at + 6));
    };
    if (hint.substr(0, 7) == "stall: ") {
        update.kind = StallNoticeUpdate::Kind::set;
        update.notice.kind = Tile::RunningState::StallNotice::Kind::fileStall;
        update.notice.seconds = numberAfter(hint, "stalled_s=").value_or(0);
        update.notice.path = pathOf(hint);
    } else if (hint.substr(0, 6) == "slow: ") {
        update.kind = StallNoticeUpdate::Kind::set;
        update.notice.kind = Tile::RunningState::StallNotice::Kind::scanSlow;
        update.notice.seconds = numberAfter(hint, "in_dir_s=").value_or(0);
        update.notice.path = pathOf(hint);
    } else if (hint == "scanner_stuck") {
        update.kind = StallNoticeUpdate::Kind::set;
        update.notice.kind = Tile::RunningState::StallNotice::Kind::scanStuck;
    }
    return update;
}

std::string RunTracker::stallTitle(const Tile::RunningState::StallNotice& notice) {
    return notice.kind == Tile::RunningState::StallNotice::Kind::fileStall ? "Copying large file" : "Scanning";
}

std::string RunTracker::stallText(const Tile::RunningState::StallNotice& notice) {
    if (notice.kind == Tile::RunningState::StallNotice::Kind::fileStall) {
        return fmt::format("Still working — {} seconds and counting…", static_cast<long long>(notice.seconds));
    }
    return "Still scanning " + notice.path;
}

std::string RunTracker::scanModeLabel(Tile::RunningState::ScanModeInfo mode) {
    using M = Tile::RunningState::ScanModeInfo;
    switch (mode) {
        case M::fullRulesChanged: return "Settings changed — full scan";
        case M::fullHistoryExpired: return "Change history unavailable — full scan to be safe";
        case M::fullFirstRun: return "Initial backup — full scan, this may take a while";
        case M::fullForced:
        case M::fullUnspecified: return "Full scan";
        case M::incremental: return "";
    }
    return "";
}

void RunTracker::ensureRunning() {
    if (tile_.running) return;
    Tile::RunningState state;
    const auto shape = tile_.copyMode == Tile::CopyMode::eraseThenCopy ? RunPhaseModel::RunShape::eraseThenCopy
                                                                        : RunPhaseModel::RunShape::smartUpdate;
    RunPhaseModel::SeedInputs inputs;
    inputs.destinationIsDiskImage = tile_.destinationIsDiskImage;
    state.phases = RunPhaseModel::seed(shape, tile_.asBootable, inputs);
    if (userCancelled_) state.isCancelling = true;
    tile_.running = std::move(state);
}

RunTracker::Change RunTracker::apply(const wire::ClonerEvent& event) {
    if (ended_ || event.payload_case() == wire::ClonerEvent::PAYLOAD_NOT_SET) return Change::none;
    if (runIDBytes_.empty()) {
        runIDBytes_ = event.run_id().value();
        runID_ = RunIdText::uuid(runIDBytes_);
    } else if (!event.run_id().value().empty() && event.run_id().value() != runIDBytes_) {
        return Change::none;
    }
    if (startedAtNanos_ == 0) startedAtNanos_ = event.timestamp_unix_nanos();

    switch (event.payload_case()) {
        case wire::ClonerEvent::kQueued:
            tile_.face = Tile::Face::queued;
            queuePosition_ = event.queued().position_in_queue();
            queuedBlockerTileID_ = event.queued().blocking_tile_id();
            return Change::queued;
        case wire::ClonerEvent::kStarted:
            tile_.face = Tile::Face::running;
            tile_.running.reset();
            ensureRunning();
            startedAtNanos_ = event.timestamp_unix_nanos();
            return Change::started;
        case wire::ClonerEvent::kPhaseStart:
            ensureRunning();
            tile_.running->phases = RunPhaseModel::applyPhaseStart(std::move(tile_.running->phases),
                                                                   event.phase_start().name(), true);
            return Change::phases;
        case wire::ClonerEvent::kPhaseEnd: {
            ensureRunning();
            auto& phases = tile_.running->phases;
            if (event.phase_end().succeeded()) {
                phases = RunPhaseModel::applyPhaseEnd(std::move(phases), event.phase_end().name(), true);
            } else {
                phases = RunPhaseModel::applyFailure(std::move(phases), std::string_view(event.phase_end().name()),
                                                     std::nullopt);
            }
            return Change::phases;
        }
        case wire::ClonerEvent::kStepStart:
            ensureRunning();
            tile_.running->phases = RunPhaseModel::applyStepStart(std::move(tile_.running->phases),
                                                                  event.step_start().phase_name(),
                                                                  event.step_start().name());
            return Change::phases;
        case wire::ClonerEvent::kStepEnd: {
            ensureRunning();
            const auto& e = event.step_end();
            auto& phases = tile_.running->phases;
            if (e.succeeded()) {
                phases = RunPhaseModel::applyStepEnd(std::move(phases), e.phase_name(), e.name());
            } else {
                failedStepMessage_ = e.error_message();
                phases = RunPhaseModel::applyFailure(std::move(phases), std::string_view(e.phase_name()),
                                                     std::string_view(e.name()));
            }
            return Change::phases;
        }
        case wire::ClonerEvent::kProgress: {
            ensureRunning();
            auto& r = *tile_.running;
            const auto& p = event.progress();
            const auto n = ProgressModel::normalize(p);
            r.currentPath = n.currentPath;
            r.copyPath = n.copyPath;
            r.scanPath = n.scanPath;
            r.bytesCopied = n.bytesCopied;
            r.deleteBackpressure = n.deleteBackpressure;
            r.itemsDeleted = n.itemsDeleted;
            r.copyInFlight = n.copyInFlight;
            r.walkDone = n.walkDone;
            r.dirsRetimeChecked = n.dirsRetimeChecked;
            r.dirsRetimeTotal = n.dirsRetimeTotal;
            if (n.fraction) r.overallProgress = *n.fraction;
            r.bytesCompleted = n.bytesCompleted;
            r.bytesTotal = n.bytesTotal;
            r.filesCompleted = n.filesCompleted;
            r.filesTotal = n.filesTotal;
            r.ratePerSec = n.ratePerSec;
            r.etaSeconds = n.isEstimating ? -1 : n.etaSeconds;
            r.isEstimating = n.isEstimating;
            r.bytesUpToDate = n.bytesUpToDate;
            r.etaText = DisplayFormat::etaText(r.etaSeconds);
            // The stall is over once the run moves again.
            const auto mark = progressMark(p);
            if (r.stallNotice && mark != stallMark_) {
                r.stallNotice.reset();
                r.statusHint.reset();
            }
            stallMark_ = mark;
            return Change::progress;
        }
        case wire::ClonerEvent::kPaused:
            ensureRunning();
            tile_.running->isPaused = true;
            tile_.running->pausePending = false;
            return Change::pause;
        case wire::ClonerEvent::kResumed:
            ensureRunning();
            tile_.running->isPaused = false;
            tile_.running->pausePending = false;
            return Change::pause;
        case wire::ClonerEvent::kPauseRequested:
            ensureRunning();
            tile_.running->pausePending = true;
            return Change::pause;
        case wire::ClonerEvent::kScanMode: {
            ensureRunning();
            using M = Tile::RunningState::ScanModeInfo;
            const auto& s = event.scan_mode();
            M mode = M::fullUnspecified;
            switch (s.reason()) {
                case wire::ScanMode::REASON_INCREMENTAL: mode = M::incremental; break;
                case wire::ScanMode::REASON_FIRST_RUN: mode = M::fullFirstRun; break;
                case wire::ScanMode::REASON_HISTORY_EXPIRED: mode = M::fullHistoryExpired; break;
                case wire::ScanMode::REASON_RULES_CHANGED: mode = M::fullRulesChanged; break;
                case wire::ScanMode::REASON_FORCED: mode = M::fullForced; break;
                default: mode = s.mode() == wire::ScanMode::MODE_INCREMENTAL ? M::incremental : M::fullUnspecified;
            }
            tile_.running->scanMode = mode;
            return Change::scanMode;
        }
        case wire::ClonerEvent::kLog: {
            const auto& text = event.log().text();
            log_ += text;
            if (text.empty() || text.back() != '\n') log_ += '\n';
            if (!isHint(text)) return Change::log;
            ensureRunning();
            auto update = stallUpdate(text);
            tile_.running->statusHint = text;
            if (update.kind == StallNoticeUpdate::Kind::set) tile_.running->stallNotice = update.notice;
            if (update.kind == StallNoticeUpdate::Kind::clear) tile_.running->stallNotice.reset();
            return Change::hint;
        }
        case wire::ClonerEvent::kAwaitingImagePassphrase:
            ensureRunning();
            tile_.running->statusHint = "Waiting for the password for “" + event.awaiting_image_passphrase().display_name() + "”";
            return Change::hint;
        case wire::ClonerEvent::kAwaitingConnect:
            ensureRunning();
            tile_.running->statusHint = "Connecting to “" + event.awaiting_connect().display_name() + "”";
            return Change::hint;
        case wire::ClonerEvent::kAwaitingUnlock:
            ensureRunning();
            tile_.running->statusHint = "Waiting to unlock “" + event.awaiting_unlock().display_name() + "”";
            return Change::hint;
        case wire::ClonerEvent::kAwaitingEncryptionPassphrase:
            ensureRunning();
            tile_.running->statusHint =
                "Waiting for the password for “" + event.awaiting_encryption_passphrase().display_name() + "”";
            return Change::hint;
        case wire::ClonerEvent::kCompleted: {
            completed_ = event.completed();
            end(Tile::HistoryRun::Outcome::ok, {}, event.completed().elapsed_nanos());
            return Change::ended;
        }
        case wire::ClonerEvent::kFailed: {
            failed_ = event.failed();
            if (tile_.running && !tile_.running->failure) {
                const auto& f = event.failed();
                tile_.running->failure =
                    Tile::Failure{f.failed_path(), f.failed_syscall(), f.failed_side(), f.failed_errno(), f.error_count()};
            }
            if (tile_.running) {
                std::optional<std::string_view> phase;
                if (!event.failed().failed_phase().empty()) phase = event.failed().failed_phase();
                tile_.running->phases = RunPhaseModel::applyFailure(std::move(tile_.running->phases), phase, std::nullopt);
            }
            end(Tile::HistoryRun::Outcome::failed, event.failed().error_message(),
                event.timestamp_unix_nanos() - startedAtNanos_);
            return Change::ended;
        }
        case wire::ClonerEvent::kCancelled:
            end(Tile::HistoryRun::Outcome::cancelled, {}, event.timestamp_unix_nanos() - startedAtNanos_);
            return Change::ended;
        default:
            return Change::none;
    }
}

void RunTracker::end(Tile::HistoryRun::Outcome outcome, std::string reason, std::int64_t elapsedNanos) {
    ended_ = true;
    if (userCancelled_) {
        outcome = Tile::HistoryRun::Outcome::cancelled;
        reason.clear();
    }
    Tile::HistoryRun run;
    run.id = runID_;
    run.outcome = outcome;
    run.reason = std::move(reason);
    run.when = std::chrono::system_clock::now();
    run.logContent = log_;
    run.durationText = DisplayFormat::duration(static_cast<double>(std::max<std::int64_t>(0, elapsedNanos)) / 1e9);
    run.ranMode = tile_.copyMode;
    run.ranBootable = tile_.asBootable;
    if (completed_) {
        const auto& c = *completed_;
        auto count = [](std::int64_t n) { return static_cast<std::uint64_t>(std::max<std::int64_t>(0, n)); };
        run.filesCopied = count(c.items_copied());
        run.filesUpdated = count(c.items_updated_meta_only());
        run.filesDeleted = count(c.items_deleted());
        run.itemsEvaluated = count(c.items_evaluated());
        run.bytesEvaluated = count(c.bytes_evaluated());
        run.bytesCopied = count(c.bytes_copied());
        run.deferredCount = c.deferred_count();
    }
    run.bytesText = DisplayFormat::bytes(run.bytesCopied);
    if (failed_ && outcome == Tile::HistoryRun::Outcome::failed) {
        const auto& f = *failed_;
        run.failure = Tile::Failure{f.failed_path(), f.failed_syscall(), f.failed_side(), f.failed_errno(), f.error_count()};
    }
    tile_.runHistory.insert(tile_.runHistory.begin(), run);
    tile_.successStreak = outcome == Tile::HistoryRun::Outcome::ok ? tile_.successStreak + 1 : 0;
    switch (outcome) {
        case Tile::HistoryRun::Outcome::ok: tile_.face = Tile::Face::completed; break;
        case Tile::HistoryRun::Outcome::failed: tile_.face = Tile::Face::failed; break;
        default: tile_.face = Tile::Face::configured; break;
    }
    lastState_ = std::move(tile_.running);
    tile_.running.reset();
    lastRun_ = std::move(run);
}

}  // namespace ql
