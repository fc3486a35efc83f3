// Helpers shared by the transport tests: an event loop on background threads, a temporary
// folder for sockets, and small test providers.
#pragma once

#include <gtest/gtest.h>

#include "QLProtocol/transport/ServiceCatalogue.h"
#include "QLSupport/EventStream.h"

#include <asio.hpp>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace ql::test {

// An io_context driven by `threads` background threads, for as long as the loop lives.
class TestLoop {
public:
    explicit TestLoop(int threads = 2) : guard_(asio::make_work_guard(context_)) {
        for (int i = 0; i < threads; ++i) threads_.emplace_back([this] { context_.run(); });
    }
    ~TestLoop() {
        guard_.reset();
        context_.stop();
        for (auto& t : threads_) t.join();
    }
    TestLoop(const TestLoop&) = delete;
    TestLoop& operator=(const TestLoop&) = delete;

    asio::any_io_executor executor() { return context_.get_executor(); }

    // Runs `operation` on a strand of the loop and waits for its result (failing the test after
    // `limit`).
    template <typename T>
    T run(asio::awaitable<T> operation, std::chrono::milliseconds limit = std::chrono::seconds{10}) {
        auto future = asio::co_spawn(asio::make_strand(context_), std::move(operation), asio::use_future);
        if (future.wait_for(limit) != std::future_status::ready) {
            throw std::runtime_error("the operation did not finish in time");
        }
        return future.get();
    }
    void run(asio::awaitable<void> operation, std::chrono::milliseconds limit = std::chrono::seconds{10}) {
        auto future = asio::co_spawn(asio::make_strand(context_), std::move(operation), asio::use_future);
        if (future.wait_for(limit) != std::future_status::ready) {
            throw std::runtime_error("the operation did not finish in time");
        }
        future.get();
    }

private:
    asio::io_context context_;
    asio::executor_work_guard<asio::io_context::executor_type> guard_;
    std::vector<std::thread> threads_;
};

// A fresh folder under /tmp (socket paths must stay short), removed afterwards.
class TempFolder {
public:
    TempFolder() {
        std::string pattern = "/tmp/qltr-XXXXXX";
        if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
        path_ = pattern;
    }
    ~TempFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

// Waits (polling) until `condition` holds, for at most `limit`.
template <typename F>
bool eventually(F condition, std::chrono::milliseconds limit = std::chrono::seconds{5}) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < deadline) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds{2});
    }
    return condition();
}

// Ping echoes its nonce; the other system methods stay "not available".
class EchoSystemProvider final : public SystemServiceProvider {
public:
    UnaryResult<wire::PingResponse> ping(CallContext, wire::PingRequest request) override {
        ++calls;
        wire::PingResponse response;
        response.set_nonce(request.nonce());
        co_return response;
    }
    std::atomic<int> calls{0};
};

// Streams of run events whose behaviour the run id chooses:
//   "fail"  two events, then the stream fails with "the engine exited with status 3";
//   "hold"  one event, then the producer waits; `consumerGone` is set when the client leaves;
//   "throw" the provider throws; "refuse" it answers a HandlerError;
//   anything else: `eventsPerStream` events stamped 0, 1, 2, … with the request's run id.
// CancelRun answers ok for a non-empty run id and a HandlerError for an empty one.
class ScriptedCopyProvider final : public CopyServiceProvider {
public:
    static constexpr int eventsPerStream = 50;

    StreamResult<wire::ClonerEvent> joinRun(CallContext, wire::JoinRunRequest request) override {
        const auto script = request.run_id().value();
        if (script == "throw") throw std::runtime_error("the provider broke");
        if (script == "refuse") co_return tl::unexpected(HandlerError::failed("no such run"));
        auto [producer, consumer] = EventStream<wire::ClonerEvent>::make();
        auto event = [&](std::int64_t stamp) {
            wire::ClonerEvent e;
            e.set_timestamp_unix_nanos(stamp);
            *e.mutable_run_id() = request.run_id();
            return e;
        };
        if (script == "fail") {
            producer.push(event(0));
            producer.push(event(1));
            producer.finish(StreamFailure{"the engine exited with status 3"});
        } else if (script == "hold") {
            producer.push(event(0));
            producer.onConsumerGone([this] { consumerGone = true; });
            std::lock_guard lock(mutex);
            held.push_back(producer);
        } else {
            for (int i = 0; i < eventsPerStream; ++i) producer.push(event(i));
            producer.finish();
        }
        co_return std::move(consumer);
    }

    UnaryResult<wire::RunControlResponse> cancelRun(CallContext, wire::RunControlRequest request) override {
        if (request.run_id().value().empty()) co_return tl::unexpected(HandlerError::failed("no run with that id"));
        wire::RunControlResponse response;
        response.set_ok(true);
        co_return response;
    }

    std::atomic<bool> consumerGone{false};
    std::mutex mutex;
    std::vector<EventStream<wire::ClonerEvent>::Producer> held;
};

inline wire::JoinRunRequest joinRequest(const std::string& script) {
    wire::JoinRunRequest request;
    request.mutable_run_id()->set_value(script);
    return request;
}

inline wire::PingRequest pingRequest(const std::string& nonce) {
    wire::PingRequest request;
    request.set_nonce(nonce);
    return request;
}

// Drains a client stream: the items, or the error it ended with.
template <typename Item>
asio::awaitable<tl::expected<std::vector<Item>, TransportError>> drain(ClientStream<Item> stream) {
    std::vector<Item> items;
    for (;;) {
        auto item = co_await stream.next();
        if (!item) co_return tl::unexpected(item.error());
        if (!*item) co_return items;
        items.push_back(std::move(**item));
    }
}

}  // namespace ql::test
