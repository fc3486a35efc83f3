#pragma once

#include "qlcopy/StopControl.h"

#include <chrono>
#include <cstdint>
#include <mutex>

namespace ql {

// Holds file data to a number of bytes per second across all copy threads (--bwlimit).
// Waiting is done in short steps so a stop request ends it promptly.
class BandwidthLimiter {
public:
    BandwidthLimiter(std::uint64_t bytesPerSecond, const StopControl& stop);

    bool limited() const { return rate_ > 0; }
    // Accounts for `bytes` just moved and waits until the rate allows more.
    void consume(std::int64_t bytes);

private:
    double rate_;
    const StopControl& stop_;
    std::mutex mutex_;
    std::chrono::steady_clock::time_point next_;
};

}  // namespace ql
