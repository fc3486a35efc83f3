#pragma once

#include <atomic>
#include <chrono>

namespace ql {

// Time that counts for stalls and rates: the monotonic clock minus the time the process spent
// stopped (SIGSTOP until SIGCONT) or suspended. The progress loop reports each of its ticks;
// a tick that comes much later than planned, or after a SIGCONT, means the process was not
// running in between, and that gap is taken out.
class ActiveClock {
public:
    using Steady = std::chrono::steady_clock;

    ActiveClock();
    explicit ActiveClock(Steady::time_point start);

    // Active seconds since the start.
    double now() const;
    double at(Steady::time_point instant) const;

    // A progress tick at `instant`, planned `interval` seconds after the previous one;
    // `continued` is true when a SIGCONT arrived since the previous tick. Returns the seconds
    // taken out as stopped time (0 for an ordinary tick).
    double tick(Steady::time_point instant, double interval, bool continued);

    // Sets the reference for the next tick (when the progress loop starts).
    void markTick(Steady::time_point instant) { lastTick_ = instant; }

    double stoppedSeconds() const { return stopped_.load(); }

    // A tick this much later than planned counts as stopped time even without a SIGCONT.
    static constexpr double lateTickSeconds = 2.0;

private:
    Steady::time_point start_;
    Steady::time_point lastTick_;
    std::atomic<double> stopped_{0};
};

}  // namespace ql
