#include "QLProtocol/runners/ProgressModel.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace ql {
namespace {

std::uint64_t nonNegative(std::int64_t v) { return v > 0 ? static_cast<std::uint64_t>(v) : 0; }

bool usable(double rate) { return std::isfinite(rate) && rate > 0; }

double ratio(std::uint64_t done, std::uint64_t total) {
    return std::min(static_cast<double>(done) / static_cast<double>(total), 1.0);
}

// A sum of two engine counters that cannot overflow.
std::int64_t saturatingAdd(std::int64_t a, std::int64_t b) {
    std::int64_t sum = 0;
    if (__builtin_add_overflow(a, b, &sum)) {
        return a > 0 ? std::numeric_limits<std::int64_t>::max() : std::numeric_limits<std::int64_t>::min();
    }
    return sum;
}

// The window rate when the engine vouches for it, else the average rate.
std::uint64_t windowOrEffectiveRate(const ql4::transport::v1::Progress& p) {
    if (p.rate_window_valid() && usable(p.rate_window_bps())) return ProgressModel::wholeRate(p.rate_window_bps());
    return ProgressModel::wholeRate(p.rate_effective_bps());
}

}  // namespace

std::uint64_t ProgressModel::wholeRate(double bytesPerSecond) {
    if (!usable(bytesPerSecond)) return 0;
    constexpr double limit = 18446744073709551616.0;  // 2^64
    if (bytesPerSecond >= limit) return std::numeric_limits<std::uint64_t>::max();
    return static_cast<std::uint64_t>(bytesPerSecond);
}

NormalizedProgress ProgressModel::normalize(const ql4::transport::v1::Progress& p) {
    NormalizedProgress n;

    if (p.scout_total_bytes() == 0 && p.bytes_total() >= 1) {
        n.isAsrShape = true;
        n.bytesCompleted = n.bytesCopied = nonNegative(p.bytes_copied());
        n.bytesTotal = static_cast<std::uint64_t>(p.bytes_total());
        if (p.eta_seconds() < 0) {
            n.isEstimating = true;
        } else {
            n.fraction = ratio(n.bytesCompleted, n.bytesTotal);
        }
        n.etaSeconds = p.eta_seconds();
        n.currentPath = p.current_path();
        n.itemsDeleted = std::max<std::int64_t>(p.items_deleted(), 0);
        n.ratePerSec = windowOrEffectiveRate(p);
        return n;
    }

    const std::uint64_t scoutBytes = nonNegative(p.scout_total_bytes());
    if (p.has_work_done_bytes()) {
        n.bytesCompleted = nonNegative(p.work_done_bytes());
        n.filesCompleted = nonNegative(saturatingAdd(p.files_skipped(), p.files_copied()));
        if (p.scout_total_files() > 0) n.filesCompleted = std::min(n.filesCompleted, nonNegative(p.scout_total_files()));
        // Work done counts skipped bytes at their full size, which the window rate (bytes
        // written recently) does not; only the run's average stays comparable.
        n.ratePerSec = wholeRate(p.rate_effective_bps());
    } else {
        n.bytesCompleted = nonNegative(p.bytes_evaluated());
        n.filesCompleted = nonNegative(p.files_evaluated());
        n.ratePerSec = windowOrEffectiveRate(p);
    }
    n.filesTotal = nonNegative(p.scout_total_files());
    n.bytesTotal = scoutBytes;

    const bool sized = scoutBytes > 0 && p.scout_done();
    if (sized && !p.delete_backpressure()) n.fraction = ratio(n.bytesCompleted, scoutBytes);
    n.isEstimating = !sized || p.delete_backpressure();

    n.etaSeconds = std::max<std::int64_t>(p.eta_selected_seconds(), 0);
    n.bytesCopied = nonNegative(p.bytes_copied());
    n.bytesUpToDate = nonNegative(p.bytes_skipped());
    n.itemsDeleted = std::max<std::int64_t>(p.items_deleted(), 0);
    n.currentPath = !p.current_copy_path().empty() ? p.current_copy_path() : p.current_scan_path();
    n.copyPath = p.current_copy_path();
    n.scanPath = p.current_scan_path();
    n.copyInFlight = p.copy_in_flight();
    n.walkDone = p.walk_done();
    n.deleteBackpressure = p.delete_backpressure();
    n.dirsRetimeChecked = std::max<std::int64_t>(p.dirs_retime_checked(), 0);
    n.dirsRetimeTotal = std::max<std::int64_t>(p.dirs_retime_total(), 0);
    return n;
}

}  // namespace ql
