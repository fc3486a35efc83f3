#include "QLSupport/Clock.h"

#include <asio/experimental/awaitable_operators.hpp>
#include <gtest/gtest.h>

namespace ql {
namespace {

using namespace std::chrono_literals;

TEST(VirtualTime, SleepersWakeInDeadlineOrderOnlyWhenTimeAdvances) {
    asio::io_context io;
    VirtualTime time;
    std::vector<int> woke;
    auto sleeper = [&](int id, Duration d) -> asio::awaitable<void> {
        co_await time.sleep(d);
        woke.push_back(id);
    };
    asio::co_spawn(io, sleeper(3, 30s), asio::detached);
    asio::co_spawn(io, sleeper(1, 10s), asio::detached);
    asio::co_spawn(io, sleeper(2, 10s), asio::detached);
    io.poll();
    EXPECT_EQ(time.sleeping(), 3u);
    EXPECT_TRUE(woke.empty());

    time.advance(9s);
    io.poll();
    EXPECT_TRUE(woke.empty());
    time.advance(1s);
    io.poll();
    EXPECT_EQ(woke, (std::vector<int>{1, 2}));
    time.advance(1h);
    io.poll();
    EXPECT_EQ(woke, (std::vector<int>{1, 2, 3}));
}

TEST(VirtualTime, ClocksMoveWithAdvanceAndCancelledSleepsEndEarly) {
    using namespace asio::experimental::awaitable_operators;
    asio::io_context io;
    VirtualTime time(SystemTime{} + 100s);
    auto wall = time.now();
    auto mono = time.monotonicNow();
    time.advance(5s);
    EXPECT_EQ(time.now() - wall, 5s);
    EXPECT_EQ(time.monotonicNow() - mono, 5s);

    size_t winner = 99;
    asio::co_spawn(io, [&]() -> asio::awaitable<void> {
        auto r = co_await (time.sleep(1h) || time.sleep(1s));
        winner = r.index();
    }, asio::detached);
    io.poll();
    time.advance(1s);
    io.poll();
    EXPECT_EQ(winner, 1u);
    EXPECT_EQ(time.sleeping(), 0u) << "the losing sleep was cancelled and removed";
}

}  // namespace
}  // namespace ql
