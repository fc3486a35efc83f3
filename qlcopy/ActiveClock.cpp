#include "qlcopy/ActiveClock.h"

#include <algorithm>

namespace ql {

ActiveClock::ActiveClock() : ActiveClock(Steady::now()) {}

ActiveClock::ActiveClock(Steady::time_point start) : start_(start), lastTick_(start) {}

double ActiveClock::at(Steady::time_point instant) const {
    return std::chrono::duration<double>(instant - start_).count() - stopped_.load();
}

double ActiveClock::now() const { return at(Steady::now()); }

double ActiveClock::tick(Steady::time_point instant, double interval, bool continued) {
    double gap = std::chrono::duration<double>(instant - lastTick_).count();
    lastTick_ = instant;
    double late = gap - interval;
    if (late <= 0) return 0;
    if (!continued && late < lateTickSeconds) return 0;
    stopped_.store(stopped_.load() + late);
    return late;
}

}  // namespace ql
