#include "app/core/DaemonConnection.h"

#include "QLProtocol/transport/AttestationTokenCache.h"
#include "QLProtocol/transport/LiveAttestationClient.h"
#include "QLProtocol/transport/SocketPath.h"
#include "QLSupport/Clock.h"
#include "QLSupport/Log.h"

#include <asio/experimental/awaitable_operators.hpp>
#include <fmt/format.h>

#include <cmath>
#include <random>

namespace ql {

std::string DaemonConnection::Status::description() const {
    switch (kind) {
        case Kind::connected: return fmt::format("Connected · {} ms", latencyMs);
        case Kind::error: return "Error: " + message;
        case Kind::unknown: return "Not connected";
        case Kind::connecting: return "Connecting…";
    }
    return "Not connected";
}

std::string DaemonConnection::resolveSocketPath() { return SocketPath::forClient(); }

DaemonConnection::DaemonConnection(asio::any_io_executor executor, Options options)
    : executor_(std::move(executor)), options_(std::move(options)) {
    if (!options_.resolveSocketPath) options_.resolveSocketPath = [] { return resolveSocketPath(); };
    reopen(options_.resolveSocketPath());
}

void DaemonConnection::reopen(std::string socketPath) {
    socketPath_ = std::move(socketPath);
    tokenCache_.reset();
    if (options_.useAttestation) {
        LiveAttestationClient::Options attestation;
        attestation.attestationSocketPath = SocketPath::attestationPath(socketPath_);
        tokenCache_ = std::make_shared<AttestationTokenCache>(
            executor_, std::make_shared<LiveAttestationClient>(attestation), std::make_shared<LiveClock>());
    }
    UDSChannel::Options channel;
    channel.socketPath = socketPath_;
    channel.connectTimeout = options_.connectTimeoutSeconds;
    channel.tokenCache = tokenCache_;
    channel_ = std::make_shared<UDSChannel>(channel);
    system_ = std::make_unique<SystemServiceClient>(channel_);
    source_ = std::make_unique<SourceServiceClient>(channel_);
    tiles_ = std::make_unique<TileServiceClient>(channel_);
    copy_ = std::make_unique<CopyServiceClient>(channel_);
}

asio::awaitable<bool> DaemonConnection::pingOnce() {
    using namespace asio::experimental::awaitable_operators;
    std::string nonce(8, '\0');
    std::random_device random;
    for (auto& c : nonce) c = static_cast<char>(random() & 0xff);
    const auto started = std::chrono::steady_clock::now();
    if (status_.kind != Status::Kind::connected) status_ = Status::connecting();

    wire::PingRequest request;
    request.set_nonce(nonce);
    asio::steady_timer timer(executor_, options_.pingTimeout);
    auto call = system_->call<&SystemServiceProvider::ping>(std::move(request));
    auto wait = timer.async_wait(asio::use_awaitable);
    auto raced = co_await (std::move(call) || std::move(wait));
    if (raced.index() == 1) {
        status_ = Status::error(fmt::format("Daemon did not respond within {}s (probe timeout)",
                                            options_.pingTimeout.count() / 1000));
        co_return false;
    }
    auto& reply = std::get<0>(raced);
    if (!reply) {
        status_ = Status::error(reply.error().message());
        co_return false;
    }
    if (reply->nonce() != nonce) {
        status_ = Status::error("Nonce mismatch");
        co_return false;
    }
    const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    status_ = Status::connected(static_cast<std::int64_t>(std::llround(elapsed * 1000.0)));
    fdaGranted_ = reply->fda_granted();
    if (reply->daemon_binary_stamp_unix() == 0) {
        daemonBinaryStampUnix_.reset();
    } else {
        daemonBinaryStampUnix_ = reply->daemon_binary_stamp_unix();
    }
    serverTimestampUnixNanos_ = reply->server_timestamp_unix_nanos();
    co_return true;
}

asio::awaitable<bool> DaemonConnection::probe() {
    if (co_await pingOnce()) co_return true;
    auto again = options_.resolveSocketPath();
    if (again == socketPath_) co_return false;
    Log::line("probe", "swapping socket: " + socketPath_ + " → " + again);
    reopen(std::move(again));
    status_ = Status::connecting();
    co_return co_await pingOnce();
}

}  // namespace ql
