#include "QLSupport/EventStream.h"

#include <asio/experimental/awaitable_operators.hpp>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace ql {
namespace {

using namespace std::chrono_literals;
using Stream = EventStream<int>;

// Runs `body` as a coroutine on a fresh single-threaded io_context until it finishes.
template <typename F>
void runCoroutine(asio::io_context& io, F body) {
    bool done = false;
    std::exception_ptr error;
    asio::co_spawn(io, body(), [&](std::exception_ptr e) {
        error = e;
        done = true;
    });
    io.run();
    ASSERT_TRUE(done);
    if (error) std::rethrow_exception(error);
}

asio::awaitable<std::vector<int>> drain(Stream::Consumer& consumer) {
    std::vector<int> out;
    while (auto v = co_await consumer.next()) out.push_back(*v);
    co_return out;
}

TEST(EventStream, DeliversEventsPushedBeforeAndAfterTheConsumerWaits) {
    asio::io_context io;
    auto [producer, consumer] = Stream::make();
    producer.push(1);
    producer.push(2);
    asio::post(io, [p = producer] {
        p.push(3);
        p.finish();
    });
    std::vector<int> got;
    runCoroutine(io, [&]() -> asio::awaitable<void> { got = co_await drain(consumer); });
    EXPECT_EQ(got, (std::vector<int>{1, 2, 3}));
    EXPECT_FALSE(consumer.failure());
    EXPECT_TRUE(consumer.drained());
}

TEST(EventStream, FinishingWithAFailureEndsAfterTheQueuedEvents) {
    asio::io_context io;
    auto [producer, consumer] = Stream::make();
    producer.push(7);
    producer.finish(StreamFailure{"disk gone"});
    EXPECT_FALSE(producer.push(8)) << "a finished stream takes no more events";
    producer.finish();  // a second finish changes nothing
    std::vector<int> got;
    runCoroutine(io, [&]() -> asio::awaitable<void> { got = co_await drain(consumer); });
    EXPECT_EQ(got, std::vector<int>{7});
    ASSERT_TRUE(consumer.failure());
    EXPECT_EQ(consumer.failure()->message, "disk gone");
}

TEST(EventStream, KeepsEachProducersOrderUnderConcurrentProducers) {
    constexpr int kProducers = 4;
    constexpr int kEach = 5000;
    asio::io_context io;
    auto [producer, consumer] = Stream::make();
    std::vector<std::thread> threads;
    std::atomic<int> running{kProducers};
    for (int p = 0; p < kProducers; ++p) {
        threads.emplace_back([&, p, prod = producer] {
            for (int i = 0; i < kEach; ++i) prod.push(p * kEach + i);
            if (--running == 0) prod.finish();
        });
    }
    std::vector<int> got;
    runCoroutine(io, [&]() -> asio::awaitable<void> { got = co_await drain(consumer); });
    for (auto& t : threads) t.join();
    ASSERT_EQ(got.size(), static_cast<size_t>(kProducers * kEach));
    std::vector<int> last(kProducers, -1);
    for (int v : got) {
        int p = v / kEach;
        EXPECT_LT(last[p], v) << "events of one producer arrived out of order";
        last[p] = v;
    }
}

TEST(EventStream, ProducerSeesTheConsumerGoAway) {
    auto [producer, consumer] = Stream::make();
    int told = 0;
    producer.onConsumerGone([&] { ++told; });
    EXPECT_FALSE(producer.consumerGone());
    { auto gone = std::move(consumer); }
    EXPECT_TRUE(producer.consumerGone());
    EXPECT_EQ(told, 1);
    EXPECT_FALSE(producer.push(1));
    int late = 0;
    producer.onConsumerGone([&] { ++late; });
    EXPECT_EQ(late, 1) << "a callback registered after the consumer left runs at once";
}

TEST(EventStream, CancellingAWaitingConsumerWakesItWithTheEnd) {
    asio::io_context io;
    auto [producer, consumer] = Stream::make();
    bool ended = false;
    asio::co_spawn(io, [&]() -> asio::awaitable<void> {
        auto v = co_await consumer.next();
        ended = !v.has_value();
    }, asio::detached);
    io.poll();
    EXPECT_FALSE(ended);
    consumer.cancel();
    io.run();
    EXPECT_TRUE(ended);
    EXPECT_TRUE(producer.consumerGone());
}

TEST(EventStream, ProducerDroppedWithoutFinishingEndsWithAFailure) {
    asio::io_context io;
    auto made = Stream::make();
    auto consumer = std::move(made.second);
    {
        auto producer = std::move(made.first);
        producer.push(1);
    }
    std::vector<int> got;
    runCoroutine(io, [&]() -> asio::awaitable<void> { got = co_await drain(consumer); });
    EXPECT_EQ(got, std::vector<int>{1});
    ASSERT_TRUE(consumer.failure());
}

TEST(EventStream, TimerRaceCancelsAWaitWithoutLosingLaterEvents) {
    using namespace asio::experimental::awaitable_operators;
    asio::io_context io;
    auto [producer, consumer] = Stream::make();
    std::vector<int> got;
    runCoroutine(io, [&]() -> asio::awaitable<void> {
        asio::steady_timer timer(io, 10ms);
        auto first = co_await (consumer.next() || timer.async_wait(asio::use_awaitable));
        EXPECT_EQ(first.index(), 1u) << "nothing was pushed, so the timer wins";
        producer.push(5);
        producer.finish();
        got = co_await drain(consumer);
    });
    EXPECT_EQ(got, std::vector<int>{5});
}

}  // namespace
}  // namespace ql
