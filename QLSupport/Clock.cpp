#include "QLSupport/Clock.h"

namespace ql {

asio::awaitable<void> LiveSleeper::sleep(Duration duration) {
    asio::steady_timer timer(co_await asio::this_coro::executor);
    timer.expires_after(duration);
    co_await timer.async_wait(asio::use_awaitable);
}

VirtualTime::VirtualTime(SystemTime start) : wall_(start) {}

SystemTime VirtualTime::now() const {
    std::lock_guard lock(mutex_);
    return wall_;
}

MonotonicTime VirtualTime::monotonicNow() const {
    std::lock_guard lock(mutex_);
    return MonotonicTime{std::chrono::duration_cast<MonotonicTime::duration>(elapsed_)};
}

std::size_t VirtualTime::sleeping() const {
    std::lock_guard lock(mutex_);
    return waiters_.size();
}

asio::awaitable<void> VirtualTime::sleep(Duration duration) {
    co_await asio::async_initiate<const asio::use_awaitable_t<>&, void(std::error_code)>(
        [this, duration](auto handler) {
            auto h = std::make_shared<decltype(handler)>(std::move(handler));
            auto executor = asio::get_associated_executor(*h);
            std::pair<Duration, std::uint64_t> key;
            {
                std::lock_guard lock(mutex_);
                key = {elapsed_ + std::max(duration, Duration{0}), sequence_++};
                waiters_[key] = Waiter{[h](std::error_code ec) { (*h)(ec); }, executor};
            }
            auto slot = asio::get_associated_cancellation_slot(*h);
            if (slot.is_connected()) {
                slot.assign([this, key](asio::cancellation_type) {
                    Waiter w;
                    {
                        std::lock_guard lock(mutex_);
                        auto it = waiters_.find(key);
                        if (it == waiters_.end()) return;
                        w = std::move(it->second);
                        waiters_.erase(it);
                    }
                    asio::post(w.executor, [r = w.resume] { r(asio::error::operation_aborted); });
                });
            }
            if (duration <= Duration{0}) wakeDue();
        },
        asio::use_awaitable);
}

void VirtualTime::advance(Duration by) {
    {
        std::lock_guard lock(mutex_);
        elapsed_ += by;
        wall_ += std::chrono::duration_cast<SystemTime::duration>(by);
    }
    wakeDue();
}

void VirtualTime::set(SystemTime to) {
    std::lock_guard lock(mutex_);
    wall_ = to;
}

void VirtualTime::wakeDue() {
    std::vector<Waiter> due;
    {
        std::lock_guard lock(mutex_);
        while (!waiters_.empty() && waiters_.begin()->first.first <= elapsed_) {
            due.push_back(std::move(waiters_.begin()->second));
            waiters_.erase(waiters_.begin());
        }
    }
    for (auto& w : due) asio::post(w.executor, [r = w.resume] { r({}); });
}

}  // namespace ql
