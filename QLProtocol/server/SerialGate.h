#pragma once

#include <asio.hpp>

#include <deque>
#include <functional>
#include <memory>

namespace ql {

// Lets one multi-step operation of an actor (mutate, then await a save on the blocking pool,
// then publish) finish before the next one begins, although the actor's strand runs other
// operations at the suspension points. Used only from the owning actor's strand, so it needs no
// lock. Waiters enter in the order they arrived.
class SerialGate {
public:
    // Holds the gate until destroyed.
    class Pass {
    public:
        Pass() = default;
        explicit Pass(SerialGate* gate) : gate_(gate) {}
        Pass(Pass&& other) noexcept : gate_(other.gate_) { other.gate_ = nullptr; }
        Pass& operator=(Pass&& other) noexcept {
            if (this != &other) {
                release();
                gate_ = other.gate_;
                other.gate_ = nullptr;
            }
            return *this;
        }
        Pass(const Pass&) = delete;
        Pass& operator=(const Pass&) = delete;
        ~Pass() { release(); }

        void release() {
            if (gate_ != nullptr) gate_->leave();
            gate_ = nullptr;
        }

    private:
        SerialGate* gate_ = nullptr;
    };

    asio::awaitable<Pass> enter() {
        if (!held_) {
            held_ = true;
            co_return Pass(this);
        }
        co_await asio::async_initiate<const asio::use_awaitable_t<>&, void()>(
            [this](auto handler) {
                auto h = std::make_shared<decltype(handler)>(std::move(handler));
                waiters_.push_back([h] {
                    auto executor = asio::get_associated_executor(*h);
                    asio::post(executor, [h] { (*h)(); });
                });
            },
            asio::use_awaitable);
        // The gate was handed over still held.
        co_return Pass(this);
    }

    bool held() const { return held_; }

private:
    void leave() {
        if (waiters_.empty()) {
            held_ = false;
            return;
        }
        auto next = std::move(waiters_.front());
        waiters_.pop_front();
        next();
    }

    bool held_ = false;
    std::deque<std::function<void()>> waiters_;
};

}  // namespace ql
