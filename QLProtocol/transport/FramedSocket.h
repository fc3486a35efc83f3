#pragma once

#include "QLProtocol/transport/ConnectionMonitor.h"
#include "QLProtocol/transport/GRPCFramer.h"
#include "QLSupport/Clock.h"

#include <asio.hpp>
#include <tl/expected.hpp>

#include <deque>
#include <memory>
#include <optional>
#include <string>

namespace ql {

// One connection of the server's socket, carrying frames (`GRPCFramer`) in both directions.
// Used by the client channel and by the server for each accepted connection. A connection is
// serial: one receive at a time (`ConnectionMonitor` refuses a second), and callers keep all
// operations on one executor (the server gives each connection its own strand).
class FramedSocket {
public:
    using Socket = asio::local::stream_protocol::socket;
    using Failure = ConnectionMonitor::Failure;

    explicit FramedSocket(Socket socket);
    FramedSocket(const FramedSocket&) = delete;
    FramedSocket& operator=(const FramedSocket&) = delete;

    // Client side: opens the socket and connects it to `path`. A full listen queue is retried
    // every few milliseconds (on `sleeper`) until the caller cancels, so callers race this with
    // their connect timeout; any other failure ends it with the system's reason.
    asio::awaitable<std::error_code> connect(std::string path, std::shared_ptr<Sleeper> sleeper);

    // The next complete frame body; nullopt when the peer closed cleanly between frames. A
    // header announcing more than 64 MiB fails the connection with EBADMSG (the socket is
    // closed); so does a peer that closes in the middle of a frame. A second receive started
    // while one waits fails with "concurrent receive on a serial connection".
    asio::awaitable<tl::expected<std::optional<std::string>, Failure>> receive();

    // Writes the 5-byte header and the body as two buffers (the body is not copied). A body
    // over the cap is refused without writing anything.
    asio::awaitable<tl::expected<void, Failure>> send(std::string body);

    // After the final frame: closes the sending side and waits until the peer closes, so that
    // the last frame is not lost — but no longer than `limit`, so that a peer that never closes
    // cannot pin the connection. True when the peer closed in time.
    asio::awaitable<bool> awaitPeerClose(Duration limit, Sleeper& sleeper);

    // Completes when the peer closes the connection (or it fails); bytes the peer sends meanwhile
    // are discarded. Cancellable. Used to notice a client that gives up on a stream.
    asio::awaitable<void> awaitPeerGone();

    void markReady() { monitor_.markReady(); }
    const ConnectionMonitor& monitor() const { return monitor_; }
    void close();
    bool isOpen() const { return socket_.is_open(); }
    Socket& socket() { return socket_; }

private:
    Socket socket_;
    GRPCFramer framer_;
    std::deque<std::string> ready_;
    std::unique_ptr<char[]> buffer_;
    ConnectionMonitor monitor_;
};

}  // namespace ql
