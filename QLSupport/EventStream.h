#pragma once

#include <asio.hpp>

#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace ql {

struct StreamFailure {
    std::string message;
    friend bool operator==(const StreamFailure&, const StreamFailure&) = default;
};

// An unbounded stream of events from one or more producers to one consumer. Producers never
// block; the consumer awaits `next()`. Either side may end it: producers with `finish`
// (optionally with a failure), the consumer by cancelling or dropping its end, which producers
// can see (`consumerGone`, `onConsumerGone`) so that they stop producing. Pushes from any
// thread; the consumer resumes on its own executor.
template <typename T>
class EventStream {
    struct State {
        std::mutex mutex;
        std::deque<T> queue;
        bool finished = false;
        bool consumerGone = false;
        std::optional<StreamFailure> failure;
        std::function<void(std::error_code, std::optional<T>)> waiter;
        asio::any_io_executor waiterExecutor;
        std::vector<std::function<void()>> goneCallbacks;

        // Hands the front of the queue (or the end) to a waiting consumer. Called with the lock
        // held; returns the work to run after unlocking.
        std::function<void()> takeReadyWaiter() {
            if (!waiter) return {};
            if (!queue.empty()) {
                auto w = std::move(waiter);
                waiter = nullptr;
                auto value = std::make_shared<std::optional<T>>(std::move(queue.front()));
                queue.pop_front();
                auto ex = waiterExecutor;
                return [w, value, ex] { asio::post(ex, [w, value] { w({}, std::move(*value)); }); };
            }
            if (finished) {
                auto w = std::move(waiter);
                waiter = nullptr;
                auto ex = waiterExecutor;
                return [w, ex] { asio::post(ex, [w] { w({}, std::nullopt); }); };
            }
            return {};
        }

        void markConsumerGone() {
            std::vector<std::function<void()>> callbacks;
            std::function<void()> wake;
            {
                std::lock_guard lock(mutex);
                if (consumerGone) return;
                consumerGone = true;
                finished = true;
                queue.clear();
                callbacks.swap(goneCallbacks);
                if (waiter) {
                    auto w = std::move(waiter);
                    waiter = nullptr;
                    auto ex = waiterExecutor;
                    wake = [w, ex] { asio::post(ex, [w] { w({}, std::nullopt); }); };
                }
            }
            if (wake) wake();
            for (auto& cb : callbacks) cb();
        }
    };

    // Finishes the stream when the last copy of a producer goes away without finishing it.
    struct ProducerLife {
        explicit ProducerLife(std::shared_ptr<State> s) : state(std::move(s)) {}
        ProducerLife(const ProducerLife&) = delete;
        ProducerLife& operator=(const ProducerLife&) = delete;
        std::shared_ptr<State> state;
        ~ProducerLife() {
            std::function<void()> wake;
            {
                std::lock_guard lock(state->mutex);
                if (state->finished) return;
                state->finished = true;
                state->failure = StreamFailure{"the producer went away without finishing the stream"};
                wake = state->takeReadyWaiter();
            }
            if (wake) wake();
        }
    };

public:
    class Producer {
    public:
        Producer() = default;

        // Appends an event. Returns false (and drops the event) once the stream has finished or
        // the consumer went away.
        bool push(T value) const {
            std::function<void()> wake;
            {
                std::lock_guard lock(state_->mutex);
                if (state_->finished) return false;
                state_->queue.push_back(std::move(value));
                wake = state_->takeReadyWaiter();
            }
            if (wake) wake();
            return true;
        }

        // Ends the stream after the events already pushed. Later calls change nothing.
        void finish(std::optional<StreamFailure> failure = std::nullopt) const {
            std::function<void()> wake;
            {
                std::lock_guard lock(state_->mutex);
                if (state_->finished) return;
                state_->finished = true;
                state_->failure = std::move(failure);
                wake = state_->takeReadyWaiter();
            }
            if (wake) wake();
        }

        bool consumerGone() const {
            std::lock_guard lock(state_->mutex);
            return state_->consumerGone;
        }

        // `callback` runs once when the consumer goes away (at once if it already has), on the
        // thread that dropped or cancelled the consumer.
        void onConsumerGone(std::function<void()> callback) const {
            {
                std::lock_guard lock(state_->mutex);
                if (!state_->consumerGone) {
                    state_->goneCallbacks.push_back(std::move(callback));
                    return;
                }
            }
            callback();
        }

        bool valid() const { return static_cast<bool>(state_); }

    private:
        friend class EventStream;
        std::shared_ptr<State> state_;
        std::shared_ptr<ProducerLife> life_;
    };

    class Consumer {
    public:
        Consumer() = default;
        Consumer(Consumer&&) noexcept = default;
        Consumer& operator=(Consumer&& other) noexcept {
            if (this != &other) {
                cancel();
                state_ = std::move(other.state_);
            }
            return *this;
        }
        Consumer(const Consumer&) = delete;
        Consumer& operator=(const Consumer&) = delete;
        ~Consumer() { cancel(); }

        // The next event, or nullopt when the stream has ended (then `failure()` says whether it
        // ended with an error). Cancelling the awaiting coroutine (for example with a timer in
        // an `||` race) throws operation_aborted and leaves the stream as it was.
        asio::awaitable<std::optional<T>> next() {
            auto state = state_;
            return asio::async_initiate<const asio::use_awaitable_t<>&, void(std::error_code, std::optional<T>)>(
                [state](auto handler) {
                    auto h = std::make_shared<decltype(handler)>(std::move(handler));
                    auto executor = asio::get_associated_executor(*h);
                    std::function<void()> wake;
                    {
                        std::lock_guard lock(state->mutex);
                        state->waiter = [h](std::error_code ec, std::optional<T> v) { (*h)(ec, std::move(v)); };
                        state->waiterExecutor = executor;
                        wake = state->takeReadyWaiter();
                        if (!wake) {
                            auto slot = asio::get_associated_cancellation_slot(*h);
                            if (slot.is_connected()) {
                                std::weak_ptr<State> weak = state;
                                slot.assign([weak](asio::cancellation_type) {
                                    auto s = weak.lock();
                                    if (!s) return;
                                    std::function<void(std::error_code, std::optional<T>)> w;
                                    asio::any_io_executor ex;
                                    {
                                        std::lock_guard lock(s->mutex);
                                        w = std::move(s->waiter);
                                        s->waiter = nullptr;
                                        ex = s->waiterExecutor;
                                    }
                                    if (w) asio::post(ex, [w] { w(asio::error::operation_aborted, std::nullopt); });
                                });
                            }
                        }
                    }
                    if (wake) wake();
                },
                asio::use_awaitable);
        }

        std::optional<StreamFailure> failure() const {
            std::lock_guard lock(state_->mutex);
            return state_->failure;
        }

        // True when the stream has ended and every event has been taken.
        bool drained() const {
            std::lock_guard lock(state_->mutex);
            return state_->finished && state_->queue.empty();
        }

        // The consumer goes away: pending and future events are dropped and producers are told.
        void cancel() {
            if (state_) state_->markConsumerGone();
        }

        bool valid() const { return static_cast<bool>(state_); }

    private:
        friend class EventStream;
        std::shared_ptr<State> state_;
    };

    static std::pair<Producer, Consumer> make() {
        auto state = std::make_shared<State>();
        Producer producer;
        producer.state_ = state;
        producer.life_ = std::make_shared<ProducerLife>(state);
        Consumer consumer;
        consumer.state_ = state;
        return {std::move(producer), std::move(consumer)};
    }
};

}  // namespace ql
