// Time-keeping of the progress loop: the active clock that leaves stops out, the rate window,
// and the stall and slow-listing decisions — all driven with explicit instants.

#include "qlcopy/ActiveClock.h"
#include "qlcopy/RateWindow.h"
#include "qlcopy/StallDetector.h"

#include <gtest/gtest.h>

namespace ql {
namespace {

using Steady = ActiveClock::Steady;

Steady::time_point at(double seconds) {
    return Steady::time_point{} + std::chrono::duration_cast<Steady::duration>(std::chrono::duration<double>(seconds));
}

TEST(ActiveClock, TakesStopsOutButNotOrdinaryTicks) {
    ActiveClock clock(at(100));
    EXPECT_DOUBLE_EQ(clock.tick(at(100.3), 0.3, false), 0.0);
    EXPECT_DOUBLE_EQ(clock.tick(at(100.9), 0.3, false), 0.0) << "a little late is not a stop";
    // SIGCONT seen: the whole delay beyond the interval was stopped time.
    EXPECT_NEAR(clock.tick(at(105.2), 0.3, true), 4.0, 1e-9);
    EXPECT_NEAR(clock.at(at(105.2)), 1.2, 1e-9);
    // Without a SIGCONT, only a tick far too late (a suspended machine) counts.
    EXPECT_NEAR(clock.tick(at(108.5), 0.3, false), 3.0, 1e-9);
    EXPECT_NEAR(clock.stoppedSeconds(), 7.0, 1e-9);
    EXPECT_NEAR(clock.at(at(108.5)), 1.5, 1e-9);
}

TEST(RateWindow, MeasuresOnlyTheRecentWindowOnceSpanned) {
    RateWindow w(10.0, 2.0);
    w.add(0.0, 0);
    w.add(1.0, 1000);
    EXPECT_FALSE(w.rate()) << "one second is too short to trust";
    EXPECT_DOUBLE_EQ(w.roughRate(), 1000.0);
    w.add(2.0, 2000);
    ASSERT_TRUE(w.rate());
    EXPECT_DOUBLE_EQ(*w.rate(), 1000.0);
    // A fast burst, then the old samples fall out of the 10 s window.
    for (int t = 3; t <= 20; ++t) w.add(t, 2000 + (t - 2) * 5000);
    EXPECT_NEAR(*w.rate(), 5000.0, 1e-6);
    // Time going backwards (a new clock) starts over instead of giving nonsense.
    w.add(1.0, 0);
    EXPECT_FALSE(w.rate());
}

ActivityBoard::Slot slot(ActivityBoard::Kind kind, std::uint64_t serial, double started, double progressed,
                         std::string path = "/x") {
    ActivityBoard::Slot s;
    s.kind = kind;
    s.serial = serial;
    s.startedAt = started;
    s.lastProgressAt = progressed;
    s.path = std::move(path);
    s.entriesSeen = 42;
    return s;
}

TEST(StallDetector, ReportsOncePerThresholdWhileItLasts) {
    StallDetector d(30, 10);
    using K = ActivityBoard::Kind;
    std::vector<ActivityBoard::Slot> slots{slot(K::listing, 1, 0, 0, "/big"), slot(K::copy, 2, 0, 5, "/f"),
                                           slot(K::idle, 3, 0, 0)};
    EXPECT_TRUE(d.check(slots, 9).empty());
    auto first = d.check(slots, 10);
    ASSERT_EQ(first.size(), 1u);
    EXPECT_EQ(first[0].type, StallDetector::Report::Type::slow);
    EXPECT_EQ(first[0].subject, "scan");
    EXPECT_EQ(first[0].path, "/big");
    EXPECT_EQ(first[0].entriesSeen, 42);
    EXPECT_TRUE(d.check(slots, 15).empty()) << "not again before another threshold";
    auto later = d.check(slots, 35.5);
    ASSERT_EQ(later.size(), 2u);  // the listing again, and the copy (no progress since 5)
    EXPECT_EQ(later[1].type, StallDetector::Report::Type::stall);
    EXPECT_EQ(later[1].subject, "copy");
    EXPECT_DOUBLE_EQ(later[1].seconds, 30.5);
    // Progress resets the copy; a new operation in the slot starts afresh.
    slots[1].lastProgressAt = 50;
    slots[0] = slot(K::listing, 4, 60, 60, "/small");
    EXPECT_TRUE(d.check(slots, 66).empty());
}

}  // namespace
}  // namespace ql
