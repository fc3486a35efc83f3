#pragma once

#include "QLSupport/Iso8601.h"

#include <asio.hpp>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

namespace ql {

using Duration = std::chrono::nanoseconds;
using MonotonicTime = std::chrono::steady_clock::time_point;

// Wall-clock and monotonic time, injected so that tests run in virtual time.
class Clock {
public:
    virtual ~Clock() = default;
    virtual SystemTime now() const = 0;
    virtual MonotonicTime monotonicNow() const = 0;
};

// Waiting, injected for the same reason. `sleep` resumes the coroutine on its own executor;
// cancelling the coroutine ends the sleep early with operation_aborted.
class Sleeper {
public:
    virtual ~Sleeper() = default;
    virtual asio::awaitable<void> sleep(Duration duration) = 0;
};

class LiveClock final : public Clock {
public:
    SystemTime now() const override { return std::chrono::system_clock::now(); }
    MonotonicTime monotonicNow() const override { return std::chrono::steady_clock::now(); }
};

class LiveSleeper final : public Sleeper {
public:
    asio::awaitable<void> sleep(Duration duration) override;
};

// A clock and sleeper whose time moves only when a test calls `advance`. Sleepers whose
// deadline is reached wake in deadline order (ties in the order they began); their coroutines
// run when the test next polls its io_context.
class VirtualTime final : public Clock, public Sleeper {
public:
    explicit VirtualTime(SystemTime start = SystemTime{std::chrono::seconds{1'700'000'000}});

    SystemTime now() const override;
    MonotonicTime monotonicNow() const override;
    asio::awaitable<void> sleep(Duration duration) override;

    void advance(Duration by);
    void set(SystemTime to);  // moves the wall clock only (a clock change), never backwards for sleepers
    std::size_t sleeping() const;

private:
    struct Waiter {
        std::function<void(std::error_code)> resume;
        asio::any_io_executor executor;
    };
    void wakeDue();

    mutable std::mutex mutex_;
    SystemTime wall_;
    Duration elapsed_{0};
    std::uint64_t sequence_ = 0;
    std::map<std::pair<Duration, std::uint64_t>, Waiter> waiters_;
};

}  // namespace ql
