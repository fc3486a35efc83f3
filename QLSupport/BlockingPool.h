#pragma once

#include <asio.hpp>

#include <exception>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

namespace ql {

// Threads for work that blocks (SQLite, fsync, waiting for a tool), so that it never holds up
// the event loop. `run` awaits the work from a coroutine; the coroutine resumes on its own
// executor with the result, or with the work's exception rethrown.
class BlockingPool {
public:
    explicit BlockingPool(std::size_t threads = 4) : pool_(threads) {}
    ~BlockingPool() {
        pool_.stop();
        pool_.join();
    }
    BlockingPool(const BlockingPool&) = delete;
    BlockingPool& operator=(const BlockingPool&) = delete;

    asio::thread_pool::executor_type executor() { return pool_.get_executor(); }

    template <typename F>
    auto run(F work) -> asio::awaitable<std::invoke_result_t<F&>> {
        using R = std::invoke_result_t<F&>;
        if constexpr (std::is_void_v<R>) {
            co_await asio::async_initiate<const asio::use_awaitable_t<>&, void(std::exception_ptr)>(
                [this](auto handler, F w) {
                    auto h = std::make_shared<decltype(handler)>(std::move(handler));
                    asio::post(pool_, [h, w = std::move(w)]() mutable {
                        std::exception_ptr error;
                        try {
                            w();
                        } catch (...) {
                            error = std::current_exception();
                        }
                        auto ex = asio::get_associated_executor(*h);
                        asio::post(ex, [h, error]() mutable { (*h)(error); });
                    });
                },
                asio::use_awaitable, std::move(work));
        } else {
            auto result = co_await asio::async_initiate<const asio::use_awaitable_t<>&,
                                                        void(std::exception_ptr, std::optional<R>)>(
                [this](auto handler, F w) {
                    auto h = std::make_shared<decltype(handler)>(std::move(handler));
                    asio::post(pool_, [h, w = std::move(w)]() mutable {
                        std::exception_ptr error;
                        std::optional<R> value;
                        try {
                            value.emplace(w());
                        } catch (...) {
                            error = std::current_exception();
                        }
                        auto ex = asio::get_associated_executor(*h);
                        asio::post(ex, [h, error, value = std::move(value)]() mutable {
                            (*h)(error, std::move(value));
                        });
                    });
                },
                asio::use_awaitable, std::move(work));
            co_return std::move(*result);
        }
    }

private:
    asio::thread_pool pool_;
};

}  // namespace ql
