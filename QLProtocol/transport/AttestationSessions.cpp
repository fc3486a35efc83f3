#include "QLProtocol/transport/AttestationSessions.h"

#include "QLSupport/Log.h"

#include <openssl/rand.h>

#include <algorithm>
#include <random>
#include <stdexcept>

namespace ql {

AttestationSessions::AttestationSessions(const Executor& executor, Options options, std::shared_ptr<const Clock> clock,
                                         TokenSource tokens)
    : Actor(executor), options_(options), clock_(std::move(clock)), tokens_(std::move(tokens)) {
    if (!tokens_) tokens_ = &AttestationSessions::randomToken;
    if (options_.maxSessions == 0) options_.maxSessions = 1;
}

std::optional<AttestationSessions::Mode> AttestationSessions::parseMode(std::string_view text) {
    if (text == "enforce") return Mode::enforce;
    if (text == "logOnly") return Mode::logOnly;
    return std::nullopt;
}

std::string AttestationSessions::randomToken() {
    std::string token(32, '\0');
    if (RAND_bytes(reinterpret_cast<unsigned char*>(token.data()), static_cast<int>(token.size())) != 1) {
        // Without a working generator no token can be trusted; refuse rather than issue a guessable one.
        throw std::runtime_error("the system's random generator failed");
    }
    return token;
}

asio::awaitable<std::string> AttestationSessions::issue(std::string client) {
    return serialized(issueOnStrand(std::move(client)));
}

asio::awaitable<bool> AttestationSessions::validate(std::string token) {
    return serialized(validateOnStrand(std::move(token)));
}

asio::awaitable<std::size_t> AttestationSessions::count() { return serialized(countOnStrand()); }

asio::awaitable<std::string> AttestationSessions::issueOnStrand(std::string client) {
    const auto now = clock_->now();
    auto token = tokens_();
    Entry entry;
    entry.issued = now;
    entry.expires = now + std::chrono::duration_cast<SystemTime::duration>(options_.ttl);
    entry.client = client;
    entry.sequence = nextSequence_++;
    sessions_[token] = std::move(entry);
    evict(now);
    Log::f("attest", "issued a session token to {} ({} active)", client, sessions_.size());
    co_return token;
}

asio::awaitable<bool> AttestationSessions::validateOnStrand(std::string token) {
    if (token.empty()) co_return false;
    auto it = sessions_.find(token);
    if (it == sessions_.end()) co_return false;
    co_return clock_->now() < it->second.expires;
}

asio::awaitable<std::size_t> AttestationSessions::countOnStrand() { co_return sessions_.size(); }

void AttestationSessions::evict(SystemTime now) {
    std::erase_if(sessions_, [now](const auto& item) { return !(now < item.second.expires); });
    while (sessions_.size() > options_.maxSessions) {
        auto oldest = std::min_element(sessions_.begin(), sessions_.end(), [](const auto& a, const auto& b) {
            return a.second.sequence < b.second.sequence;
        });
        sessions_.erase(oldest);
    }
}

}  // namespace ql
