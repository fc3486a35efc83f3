#include "qlcopy/BandwidthLimiter.h"

#include <algorithm>
#include <thread>

namespace ql {

BandwidthLimiter::BandwidthLimiter(std::uint64_t bytesPerSecond, const StopControl& stop)
    : rate_(static_cast<double>(bytesPerSecond)), stop_(stop), next_(std::chrono::steady_clock::now()) {}

void BandwidthLimiter::consume(std::int64_t bytes) {
    if (rate_ <= 0 || bytes <= 0) return;
    std::chrono::steady_clock::time_point until;
    {
        std::lock_guard lock(mutex_);
        auto now = std::chrono::steady_clock::now();
        if (next_ < now) next_ = now;
        next_ += std::chrono::duration_cast<std::chrono::steady_clock::duration>(
            std::chrono::duration<double>(static_cast<double>(bytes) / rate_));
        until = next_;
    }
    while (!stop_.stopping()) {
        auto now = std::chrono::steady_clock::now();
        if (now >= until) break;
        std::this_thread::sleep_for(std::min<std::chrono::steady_clock::duration>(until - now, std::chrono::milliseconds(50)));
    }
}

}  // namespace ql
