#pragma once

#include "QLProtocol/transport/AttestationClient.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace ql {

// Test double of the attestation route: answers every fetch with `token` (none when empty),
// after `delay` on `sleeper` when both are set, and counts the fetches.
class FakeAttestationClient final : public AttestationClient {
public:
    explicit FakeAttestationClient(std::optional<std::string> token = std::string("fake-token"))
        : token_(std::move(token)) {}

    asio::awaitable<std::optional<std::string>> fetchToken(Duration) override {
        ++requests_;
        if (sleeper_ && delay_ > Duration::zero()) co_await sleeper_->sleep(delay_);
        std::lock_guard lock(mutex_);
        co_return token_;
    }

    void setToken(std::optional<std::string> token) {
        std::lock_guard lock(mutex_);
        token_ = std::move(token);
    }
    void setDelay(std::shared_ptr<Sleeper> sleeper, Duration delay) {
        sleeper_ = std::move(sleeper);
        delay_ = delay;
    }
    int requests() const { return requests_.load(); }

private:
    std::mutex mutex_;
    std::optional<std::string> token_;
    std::shared_ptr<Sleeper> sleeper_;
    Duration delay_{0};
    std::atomic<int> requests_{0};
};

}  // namespace ql
