#pragma once

#include "QLProtocol/transport/ChannelStream.h"
#include "QLProtocol/transport/FramedSocket.h"
#include "QLProtocol/transport/TransportError.h"
#include "QLSupport/Clock.h"

#include <asio.hpp>
#include <tl/expected.hpp>

#include <memory>
#include <string>

namespace ql {

class AttestationTokenCache;

// The client side of the server's socket. Every call opens its own connection to `socketPath`,
// sends one `WireRequest` (with the session token from `tokenCache`, when there is one) and reads
// one `WireResponse` (unary) or a sequence of `WireStreamResponse` elements (server stream).
// Calls on one channel may overlap freely: the channel holds no per-call state, so it needs no
// strand of its own; each call runs on its caller's executor.
//
// Connecting waits up to `connectTimeout` seconds, also while the server's listen queue is full,
// and then fails with "connect timed out after 3.0s". A call the server refuses as
// unauthenticated drops the cached token, so that the next call fetches a fresh one; the channel
// never retries a call by itself.
class UDSChannel {
public:
    struct Options {
        std::string socketPath{};
        double connectTimeout = 3.0;  // seconds
        std::shared_ptr<AttestationTokenCache> tokenCache{};  // optional
        std::shared_ptr<Sleeper> sleeper{};                 // LiveSleeper when null
    };

    explicit UDSChannel(Options options);

    const std::string& socketPath() const { return options_.socketPath; }
    double connectTimeout() const { return options_.connectTimeout; }

    // Sends `body` to `method` and returns the response message's bytes.
    asio::awaitable<tl::expected<std::string, TransportError>> unary(std::string method, std::string body);

    // Starts a server-streaming call. Connection and send failures, like every later failure,
    // come out of the stream's first `next()`.
    asio::awaitable<ChannelStream> serverStream(std::string method, std::string body);

private:
    asio::awaitable<tl::expected<std::shared_ptr<FramedSocket>, TransportError>> connect();
    asio::awaitable<std::string> sessionToken();
    asio::awaitable<tl::expected<std::shared_ptr<FramedSocket>, TransportError>> open(std::string method,
                                                                                     std::string body,
                                                                                     bool serverStream,
                                                                                     std::string token);

    Options options_;
};

}  // namespace ql
