#pragma once

#include "QLProtocol/transport/AttestationClient.h"
#include "QLSupport/Actor.h"
#include "QLSupport/Clock.h"

#include <asio.hpp>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace ql {

// The client's session token (actor). `currentToken` returns the cached token; without one it
// starts a single fetch that every concurrent caller shares, so a burst of calls makes one
// attestation request. After a failed fetch it does not try again before `retryInterval` has
// passed (callers get no token meanwhile and the server decides). `invalidate` drops a token the
// server refused, so that the next call fetches a fresh one (servers respawn and forget their
// sessions).
class AttestationTokenCache : public Actor {
public:
    struct Options {
        Duration retryInterval = std::chrono::seconds{5};
        Duration fetchTimeout = std::chrono::seconds{3};
    };

    AttestationTokenCache(const Executor& executor, std::shared_ptr<AttestationClient> fetch,
                          std::shared_ptr<const Clock> clock, Options options);
    AttestationTokenCache(const Executor& executor, std::shared_ptr<AttestationClient> fetch,
                          std::shared_ptr<const Clock> clock)
        : AttestationTokenCache(executor, std::move(fetch), std::move(clock), Options{}) {}

    asio::awaitable<std::optional<std::string>> currentToken();
    // Drops the cached token if it is still `refused` (a newer one is kept).
    asio::awaitable<void> invalidate(std::string refused);

private:
    asio::awaitable<std::optional<std::string>> currentTokenOnStrand();
    asio::awaitable<void> fetchOnStrand();
    asio::awaitable<void> invalidateOnStrand(std::string refused);
    asio::awaitable<std::optional<std::string>> joinFetch(bool startFetch);

    std::shared_ptr<AttestationClient> fetch_;
    std::shared_ptr<const Clock> clock_;
    Options options_;

    std::optional<std::string> token_;
    std::optional<MonotonicTime> lastFailedAttempt_;
    bool inFlight_ = false;
    std::vector<std::function<void(std::optional<std::string>)>> waiters_;
};

}  // namespace ql
