#include "QLSupport/Actor.h"
#include "QLSupport/BlockingPool.h"

#include <gtest/gtest.h>

#include <thread>

namespace ql {
namespace {

// A counter whose read-modify-write spans a suspension point; the strand must still keep
// concurrent callers from running inside it at the same time.
class Counter : public Actor {
public:
    using Actor::Actor;

    asio::awaitable<int> increment() { return serialized(incrementOnStrand()); }
    int inside = 0;
    int maxInside = 0;
    int value = 0;

private:
    asio::awaitable<int> incrementOnStrand() {
        ++inside;
        maxInside = std::max(maxInside, inside);
        int v = value;
        --inside;
        co_await asio::post(co_await asio::this_coro::executor, asio::use_awaitable);
        ++inside;
        maxInside = std::max(maxInside, inside);
        value = v + 1;  // a lost update shows when another call ran in between: that is allowed,
        --inside;       // but two calls must never run at the same instant.
        co_return value;
    }
};

TEST(Actor, OperationsFromManyThreadsNeverRunAtTheSameTime) {
    asio::thread_pool pool(4);
    Counter counter(pool.get_executor());
    std::atomic<int> finished{0};
    for (int i = 0; i < 400; ++i) {
        asio::co_spawn(pool, counter.increment(), [&](std::exception_ptr, int) { ++finished; });
    }
    pool.join();
    EXPECT_EQ(finished.load(), 400);
    EXPECT_EQ(counter.maxInside, 1);
}

TEST(Actor, ExceptionsReachTheCaller) {
    asio::io_context io;
    struct Thrower : Actor {
        using Actor::Actor;
        asio::awaitable<int> fail() { return serialized(failOnStrand()); }
        asio::awaitable<int> failOnStrand() {
            throw std::runtime_error("boom");
            co_return 0;
        }
    } thrower(io.get_executor());
    std::string caught;
    asio::co_spawn(io, [&]() -> asio::awaitable<void> {
        try {
            co_await thrower.fail();
        } catch (const std::exception& e) {
            caught = e.what();
        }
    }, asio::detached);
    io.run();
    EXPECT_EQ(caught, "boom");
}

TEST(BlockingPool, RunsWorkOffTheLoopAndResumesOnTheCallersThread) {
    asio::io_context io;
    BlockingPool blocking(2);
    std::thread::id loopThread = std::this_thread::get_id();
    std::thread::id workThread, resumedThread;
    int result = 0;
    bool threw = false;
    asio::co_spawn(io, [&]() -> asio::awaitable<void> {
        result = co_await blocking.run([&] {
            workThread = std::this_thread::get_id();
            return 42;
        });
        resumedThread = std::this_thread::get_id();
        try {
            co_await blocking.run([] { throw std::runtime_error("bad"); });
        } catch (const std::runtime_error&) {
            threw = true;
        }
    }, asio::detached);
    io.run();
    EXPECT_EQ(result, 42);
    EXPECT_NE(workThread, loopThread);
    EXPECT_EQ(resumedThread, loopThread);
    EXPECT_TRUE(threw);
}

}  // namespace
}  // namespace ql
