#pragma once

#include <cstdint>
#include <deque>
#include <optional>

namespace ql {

// The recent rate of work: samples of (active seconds, work bytes) kept for a sliding window.
// Because the times are active time, a stop of the process never shows up as a slow period.
class RateWindow {
public:
    explicit RateWindow(double windowSeconds = 10.0, double minimumSpanSeconds = 2.0);

    void add(double activeSeconds, std::int64_t workBytes);

    // Bytes per second over the window; absent until the samples span the minimum.
    std::optional<double> rate() const;
    // Whatever the span, for display before the window is valid.
    double roughRate() const;

private:
    struct Sample {
        double t;
        std::int64_t bytes;
    };
    double window_;
    double minimumSpan_;
    std::deque<Sample> samples_;
};

}  // namespace ql
