#include "qlcopy/ProgressReporter.h"

#include <cmath>

namespace ql {

ProgressReporter::ProgressReporter(Settings settings, EngineCounters& counters, const ActivityBoard& board,
                                   ActiveClock& clock, EventWriter& events)
    : settings_(std::move(settings)),
      counters_(counters),
      board_(board),
      clock_(clock),
      events_(events),
      stalls_(settings_.stallAfterSeconds, settings_.slowAfterSeconds) {
    if (settings_.continuedCount) lastContinued_ = settings_.continuedCount();
}

ProgressReporter::~ProgressReporter() { stop(); }

void ProgressReporter::start() {
    thread_ = std::thread([this] { run(); });
}

void ProgressReporter::stop() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable()) thread_.join();
}

void ProgressReporter::run() {
    const auto interval = std::chrono::duration<double>(settings_.intervalSeconds);
    auto planned = ActiveClock::Steady::now();
    clock_.markTick(planned);
    for (;;) {
        {
            std::unique_lock lock(mutex_);
            planned += std::chrono::duration_cast<ActiveClock::Steady::duration>(interval);
            if (wake_.wait_until(lock, planned, [this] { return stopping_; })) return;
        }
        auto now = ActiveClock::Steady::now();
        bool continued = false;
        if (settings_.continuedCount) {
            auto c = settings_.continuedCount();
            continued = c != lastContinued_;
            lastContinued_ = c;
        }
        clock_.tick(now, settings_.intervalSeconds, continued);
        // After a stop, start planning afresh instead of catching up with missed ticks.
        if (std::chrono::duration<double>(now - planned).count() > settings_.intervalSeconds) planned = now;
        tick();
    }
}

void ProgressReporter::tick() {
    const double now = clock_.now();
    if (settings_.periodicCheck && now - lastCheck_ >= 2.0) {
        lastCheck_ = now;
        settings_.periodicCheck();
    }
    events_.emit(buildProgress(now));
    for (const auto& r : stalls_.check(board_.snapshot(), now)) {
        Json e;
        if (r.type == StallDetector::Report::Type::stall) {
            e = {{"type", "stall"}, {"subject", r.subject}, {"stalled_s", r.seconds}, {"path", r.path}};
            e["scanner_path"] = scannerPath();
            e["executor_path"] = executorPath();
        } else {
            e = {{"type", "slow"}, {"subject", r.subject}, {"in_dir_s", r.seconds}, {"entries_seen", r.entriesSeen},
                 {"path", r.path}};
        }
        events_.emit(std::move(e));
    }
}

void ProgressReporter::emitNow() { events_.emit(buildProgress(clock_.now())); }

std::string ProgressReporter::scannerPath() const {
    auto slots = board_.snapshot();
    if (!slots.empty() && slots[0].kind != ActivityBoard::Kind::idle) return slots[0].path;
    std::lock_guard lock(mutex_);
    return lastScanPath_;
}

std::string ProgressReporter::executorPath() const {
    auto slots = board_.snapshot();
    const ActivityBoard::Slot* oldest = nullptr;
    for (const auto& s : slots) {
        if (s.kind == ActivityBoard::Kind::copy && (!oldest || s.startedAt < oldest->startedAt)) oldest = &s;
    }
    if (oldest) return oldest->path;
    std::lock_guard lock(mutex_);
    return lastCopyPath_;
}

Json ProgressReporter::buildProgress(double active) {
    const auto work = counters_.workDoneBytes.load();
    const auto scoutBytes = counters_.scoutBytes.load();
    const bool scoutDone = counters_.scoutDone.load();
    window_.add(active, work);

    Json e = {{"type", "progress"}};
    e["files_evaluated"] = counters_.filesEvaluated.load();
    e["bytes_evaluated"] = counters_.bytesEvaluated.load();
    e["files_completed"] = counters_.filesCompleted.load();
    e["bytes_copied"] = counters_.bytesCopied.load();
    e["files_skipped"] = counters_.filesSkipped.load();
    e["bytes_skipped"] = counters_.bytesSkipped.load();
    e["work_done_bytes"] = work;
    e["scout_total_files"] = counters_.scoutFiles.load();
    e["scout_total_bytes"] = scoutBytes;
    e["scout_done"] = scoutDone;
    e["items_deleted"] = counters_.itemsDeleted.load();
    e["walk_done"] = counters_.walkDone.load();
    e["copy_in_flight"] = counters_.copiesInFlight.load() > 0;
    e["delete_backpressure"] = counters_.deletesInFlight.load() > 0;
    e["dirs_retime_checked"] = counters_.dirsRetimeChecked.load();
    e["dirs_retime_total"] = counters_.dirsRetimeTotal.load();

    const double effective = active > 0 ? static_cast<double>(work) / active : 0.0;
    e["rate_effective_bps"] = effective;
    auto windowRate = window_.rate();
    e["rate_window_valid"] = windowRate.has_value();
    e["rate_window_bps"] = windowRate.value_or(window_.roughRate());
    const auto evaluated = counters_.bytesEvaluated.load();
    if (evaluated > 0) e["copy_ratio_cum"] = static_cast<double>(counters_.bytesCopied.load()) / static_cast<double>(evaluated);

    // Estimates only against a known total.
    if (scoutDone && scoutBytes > 0) {
        double remaining = static_cast<double>(std::max<std::int64_t>(scoutBytes - work, 0));
        if (windowRate && *windowRate > 0) e["eta_seconds"] = static_cast<std::int64_t>(std::ceil(remaining / *windowRate));
        double blended = windowRate && *windowRate > 0 ? 0.5 * *windowRate + 0.5 * effective : effective;
        if (blended > 0 && std::isfinite(blended)) {
            e["eta_selected_seconds"] = static_cast<std::int64_t>(std::ceil(remaining / blended));
        }
    }

    std::string scan, copy;
    {
        auto slots = board_.snapshot();
        if (!slots.empty() && slots[0].kind != ActivityBoard::Kind::idle) scan = slots[0].path;
        const ActivityBoard::Slot* oldest = nullptr;
        for (const auto& s : slots) {
            if (s.kind == ActivityBoard::Kind::copy && (!oldest || s.startedAt < oldest->startedAt)) oldest = &s;
        }
        if (oldest) copy = oldest->path;
    }
    {
        std::lock_guard lock(mutex_);
        if (!scan.empty()) lastScanPath_ = scan;
        if (!copy.empty()) lastCopyPath_ = copy;
        if (!lastScanPath_.empty()) e["current_scan_path"] = lastScanPath_;
    }
    if (!copy.empty()) e["current_copy_path"] = copy;
    if (settings_.srcSolidState) e["src_is_solid_state"] = *settings_.srcSolidState ? 1 : 0;
    if (settings_.dstSolidState) e["dst_is_solid_state"] = *settings_.dstSolidState ? 1 : 0;
    return e;
}

}  // namespace ql
