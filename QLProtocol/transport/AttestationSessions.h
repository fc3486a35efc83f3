#pragma once

#include "QLSupport/Actor.h"
#include "QLSupport/Clock.h"

#include <asio.hpp>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace ql {

// The server's table of issued session tokens (actor). The attestation route (`issue`) hands a
// fresh random token to a client it has verified; every request's token is then checked
// (`validate`). In `enforce` mode a request without a valid token is refused; in `logOnly` mode
// the miss is logged and the call proceeds.
//
// Tokens live `ttl`; at most `maxSessions` are kept, the oldest evicted first, and expired ones
// are dropped whenever a token is issued.
class AttestationSessions : public Actor {
public:
    enum class Mode { logOnly, enforce };

    struct Entry {
        SystemTime expires;
        std::string client;  // describes the peer, for the log
        SystemTime issued;
        std::uint64_t sequence = 0;  // issue order, for eviction among equal instants
    };

    struct Options {
        Mode mode = Mode::enforce;
        Duration ttl = std::chrono::hours{24};
        std::size_t maxSessions = 256;
    };

    // Random token bytes; injectable so that tests can predict tokens.
    using TokenSource = std::function<std::string()>;

    AttestationSessions(const Executor& executor, Options options, std::shared_ptr<const Clock> clock,
                        TokenSource tokens = {});

    // The mode a server runs in unless configured otherwise: `enforce` for the root service,
    // `logOnly` for a user-mode server.
    static Mode defaultMode(bool runningAsRoot) { return runningAsRoot ? Mode::enforce : Mode::logOnly; }
    static std::string_view modeName(Mode mode) { return mode == Mode::enforce ? "enforce" : "logOnly"; }
    static std::optional<Mode> parseMode(std::string_view text);

    Mode mode() const { return options_.mode; }

    asio::awaitable<std::string> issue(std::string client);
    // True when the token is known and has not expired.
    asio::awaitable<bool> validate(std::string token);
    asio::awaitable<std::size_t> count();

    // 32 random bytes from the system's cryptographic generator.
    static std::string randomToken();

private:
    asio::awaitable<std::string> issueOnStrand(std::string client);
    asio::awaitable<bool> validateOnStrand(std::string token);
    asio::awaitable<std::size_t> countOnStrand();
    void evict(SystemTime now);

    Options options_;
    std::shared_ptr<const Clock> clock_;
    TokenSource tokens_;
    std::map<std::string, Entry, std::less<>> sessions_;
    std::uint64_t nextSequence_ = 0;
};

}  // namespace ql
