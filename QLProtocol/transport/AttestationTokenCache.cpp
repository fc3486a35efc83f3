#include "QLProtocol/transport/AttestationTokenCache.h"

#include "QLSupport/Log.h"

namespace ql {

AttestationTokenCache::AttestationTokenCache(const Executor& executor, std::shared_ptr<AttestationClient> fetch,
                                             std::shared_ptr<const Clock> clock, Options options)
    : Actor(executor), fetch_(std::move(fetch)), clock_(std::move(clock)), options_(options) {}

asio::awaitable<std::optional<std::string>> AttestationTokenCache::currentToken() {
    return serialized(currentTokenOnStrand());
}

asio::awaitable<void> AttestationTokenCache::invalidate(std::string refused) {
    return serialized(invalidateOnStrand(std::move(refused)));
}

asio::awaitable<std::optional<std::string>> AttestationTokenCache::currentTokenOnStrand() {
    if (token_) co_return token_;
    if (!inFlight_ && lastFailedAttempt_ &&
        clock_->monotonicNow() - *lastFailedAttempt_ < options_.retryInterval) {
        co_return std::nullopt;
    }
    const bool startFetch = !inFlight_;
    inFlight_ = true;
    co_return co_await joinFetch(startFetch);
}

// Parks the caller until the fetch in flight completes; the first caller also starts it, after
// registering itself so that even a fetch that completes at once finds its waiter. Runs on the
// strand, like the fetch.
asio::awaitable<std::optional<std::string>> AttestationTokenCache::joinFetch(bool startFetch) {
    return asio::async_initiate<const asio::use_awaitable_t<>&, void(std::optional<std::string>)>(
        [this, startFetch](auto handler) {
            auto h = std::make_shared<decltype(handler)>(std::move(handler));
            waiters_.push_back([h](std::optional<std::string> token) {
                auto executor = asio::get_associated_executor(*h);
                asio::post(executor, [h, token = std::move(token)]() mutable { (*h)(std::move(token)); });
            });
            if (startFetch) spawnDetached(fetchOnStrand(), "attest");
        },
        asio::use_awaitable);
}

asio::awaitable<void> AttestationTokenCache::fetchOnStrand() {
    std::optional<std::string> token;
    try {
        token = co_await fetch_->fetchToken(options_.fetchTimeout);
    } catch (const std::exception& e) {
        Log::f("attest", "token fetch failed: {}", e.what());
    }
    // Back on the strand: look the state up again.
    inFlight_ = false;
    if (token && !token->empty()) {
        token_ = token;
        lastFailedAttempt_.reset();
        Log::line("attest", "obtained a session token");
    } else {
        token.reset();
        lastFailedAttempt_ = clock_->monotonicNow();
        Log::line("attest", "no session token; calls go without one until the next attempt");
    }
    auto waiters = std::move(waiters_);
    waiters_.clear();
    for (auto& waiter : waiters) waiter(token);
}

asio::awaitable<void> AttestationTokenCache::invalidateOnStrand(std::string refused) {
    if (token_ && *token_ == refused) {
        token_.reset();
        lastFailedAttempt_.reset();
        Log::line("attest", "the server refused the session token; dropping it");
    }
    co_return;
}

}  // namespace ql
