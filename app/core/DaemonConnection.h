#pragma once

#include "QLProtocol/transport/CopyService.h"
#include "QLProtocol/transport/SourceService.h"
#include "QLProtocol/transport/SystemService.h"
#include "QLProtocol/transport/TileService.h"
#include "QLProtocol/transport/UDSChannel.h"

#include <asio.hpp>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace ql {

class AttestationTokenCache;

// The client's link to the copy server: which socket it uses, whether the server answers
// (a ping with a nonce, raced against a five-second limit), what the running server reported
// about itself, and the service stubs every request goes through. When a ping fails the socket
// path is worked out again; if it changed, the connection moves to the new path and pings once
// more ("[probe] swapping socket: old → new").
class DaemonConnection {
public:
    struct Status {
        enum class Kind { connected, error, unknown, connecting };
        Kind kind = Kind::unknown;
        std::int64_t latencyMs = 0;  // connected
        std::string message;         // error

        static Status connected(std::int64_t latencyMs) { return {Kind::connected, latencyMs, {}}; }
        static Status error(std::string message) { return {Kind::error, 0, std::move(message)}; }
        static Status unknown() { return {}; }
        static Status connecting() { return {Kind::connecting, 0, {}}; }

        // "Connected · 3 ms", "Error: …", "Not connected", "Connecting…".
        std::string description() const;
        friend bool operator==(const Status&, const Status&) = default;
    };

    struct Options {
        // Where the socket path comes from (and comes from again after a failed ping); the
        // socket-path rule by default.
        std::function<std::string()> resolveSocketPath;
        std::chrono::milliseconds pingTimeout{5000};
        double connectTimeoutSeconds = 3.0;
        // The session-token source; none: requests carry no token.
        bool useAttestation = true;
    };

    DaemonConnection(asio::any_io_executor executor, Options options);
    explicit DaemonConnection(asio::any_io_executor executor) : DaemonConnection(std::move(executor), Options{}) {}

    // The socket-path rule: `QLCOPYSERVER_SOCK` when set and not empty, else the system server's
    // socket when it exists, else (Linux) a user-mode server's socket when one exists, else
    // "/tmp/qlcopyserver.sock".
    static std::string resolveSocketPath();

    // Pings the server; true when it answered with the nonce sent.
    asio::awaitable<bool> probe();

    const Status& status() const { return status_; }
    const std::string& socketPath() const { return socketPath_; }
    std::optional<bool> fdaGranted() const { return fdaGranted_; }
    std::optional<std::int64_t> daemonBinaryStampUnix() const { return daemonBinaryStampUnix_; }
    // The server's clock when it answered the last ping.
    std::int64_t serverTimestampUnixNanos() const { return serverTimestampUnixNanos_; }

    // Moves every stub to a fresh channel on `socketPath`.
    void reopen(std::string socketPath);

    SystemServiceClient& system() { return *system_; }
    SourceServiceClient& source() { return *source_; }
    TileServiceClient& tiles() { return *tiles_; }
    CopyServiceClient& copy() { return *copy_; }

private:
    asio::awaitable<bool> pingOnce();

    asio::any_io_executor executor_;
    Options options_;
    std::string socketPath_;
    Status status_;
    std::optional<bool> fdaGranted_;
    std::optional<std::int64_t> daemonBinaryStampUnix_;
    std::int64_t serverTimestampUnixNanos_ = 0;
    std::shared_ptr<AttestationTokenCache> tokenCache_;
    std::shared_ptr<UDSChannel> channel_;
    std::unique_ptr<SystemServiceClient> system_;
    std::unique_ptr<SourceServiceClient> source_;
    std::unique_ptr<TileServiceClient> tiles_;
    std::unique_ptr<CopyServiceClient> copy_;
};

}  // namespace ql
