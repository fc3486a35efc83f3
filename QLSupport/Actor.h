#pragma once

#include "QLSupport/Log.h"

#include <asio.hpp>

#include <exception>
#include <string>
#include <utility>

namespace ql {

using Executor = asio::any_io_executor;

// Base of every server component. An actor owns a strand; its public operations are
// coroutines that run serialised on that strand:
//
//     asio::awaitable<int> Counter::increment() { return serialized(incrementOnStrand()); }
//
// Operations still interleave at their suspension points, so state must be looked up again
// after every co_await. Coroutine results must be default-constructible (an Asio rule).
class Actor {
public:
    explicit Actor(const Executor& executor) : strand_(asio::make_strand(executor)) {}
    virtual ~Actor() = default;
    Actor(const Actor&) = delete;
    Actor& operator=(const Actor&) = delete;

    const asio::strand<Executor>& strand() const { return strand_; }

protected:
    // Runs `operation` on this actor's strand; the caller resumes on its own executor.
    template <typename T>
    asio::awaitable<T> serialized(asio::awaitable<T> operation) {
        co_return co_await asio::co_spawn(strand_, std::move(operation), asio::use_awaitable);
    }
    asio::awaitable<void> serialized(asio::awaitable<void> operation) {
        co_await asio::co_spawn(strand_, std::move(operation), asio::use_awaitable);
    }

    // Starts `operation` on the strand without waiting for it. An escaping exception is logged
    // under `tag`, never rethrown into the event loop.
    void spawnDetached(asio::awaitable<void> operation, std::string tag) {
        asio::co_spawn(strand_, std::move(operation), [tag = std::move(tag)](std::exception_ptr error) {
            if (!error) return;
            try {
                std::rethrow_exception(error);
            } catch (const std::exception& e) {
                Log::f(tag, "task ended with an exception: {}", e.what());
            } catch (...) {
                Log::line(tag, "task ended with an unknown exception");
            }
        });
    }

private:
    asio::strand<Executor> strand_;
};

}  // namespace ql
