#pragma once

#include "QLProtocol/transport/AttestationSessions.h"
#include "QLProtocol/transport/MultiplexHandler.h"
#include "QLSupport/Actor.h"
#include "QLSupport/Clock.h"

#include <asio.hpp>
#include <tl/expected.hpp>

#include <chrono>
#include <memory>
#include <optional>
#include <string>

namespace ql {

// The server side of the socket. `start()` binds `socketPath` and accepts connections; each
// connection is served by its own task on its own strand and carries exactly one call:
//
//   1. one frame, decoded as `WireRequest` (a frame that does not decode, or no request within
//      `requestTimeout`, ends the connection);
//   2. with `sessions`, the session token is checked: in enforce mode a miss is answered
//      PEER_UNAUTHENTICATED, in logOnly mode it is logged and the call proceeds;
//   3. the `MultiplexHandler` routes it; a unary call gets one `WireResponse`, a stream call a
//      `WireStreamResponse` per item and then END_OK or END_ERROR. A refused stream call gets an
//      END_ERROR "STATUS_NAME: text". When the client closes a stream early, the provider's
//      stream is dropped, which its producer sees;
//   4. after the final frame the server waits for the client to close (at most
//      `peerCloseTimeout`) so that the frame is not lost, then releases the connection.
//
// The socket file gets mode 0666 when the server runs as root (clients of any local user
// connect; who may drive the server is decided by attestation), 0600 otherwise, unless
// `socketMode` says otherwise. A stale socket file is removed before binding; a socket a live
// server still answers on is never touched.
class UDSServer : public Actor {
public:
    struct Options {
        std::string socketPath{};
        std::shared_ptr<AttestationSessions> sessions{};  // null: no token check
        std::optional<unsigned> socketMode{};
        Duration requestTimeout = std::chrono::seconds{30};
        Duration peerCloseTimeout = std::chrono::seconds{5};
        std::shared_ptr<Sleeper> sleeper{};  // LiveSleeper when null
    };

    UDSServer(const Executor& executor, Options options, std::shared_ptr<const MultiplexHandler> handler);
    ~UDSServer() override;

    // Binds and listens; the error is a sentence naming the path.
    tl::expected<void, std::string> start();
    // Stops accepting and closes every open connection (their providers' streams are dropped).
    // The socket file is removed if it is still the one this server bound.
    void stop();

    const std::string& socketPath() const;
    // Connections currently being served.
    std::size_t connectionCount() const;

    static unsigned defaultSocketMode(bool runningAsRoot) { return runningAsRoot ? 0666u : 0600u; }

    // What the listener and the connection tasks share; they keep it alive after the server
    // object is gone, until the last connection ends.
    struct State;

private:
    std::shared_ptr<State> state_;
};

}  // namespace ql
