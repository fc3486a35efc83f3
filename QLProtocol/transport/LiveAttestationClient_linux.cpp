#include "QLProtocol/transport/LiveAttestationClient.h"

#include "QLProtocol/transport/DaemonAttestation.h"
#include "QLProtocol/transport/FramedSocket.h"
#include "QLSupport/Log.h"

#include <asio/experimental/awaitable_operators.hpp>

namespace ql {

namespace {

constexpr std::string_view tag = "attest";

// One request over the attestation socket: connect, send "attest", read the token.
asio::awaitable<std::optional<std::string>> requestToken(std::shared_ptr<FramedSocket> socket, std::string path,
                                                         std::shared_ptr<Sleeper> sleeper) {
    if (auto ec = co_await socket->connect(path, sleeper)) {
        Log::f(tag, "cannot reach the attestation service at {}: {}", path, ec.message());
        co_return std::nullopt;
    }
    auto sent = co_await socket->send(std::string(DaemonAttestation::requestKey));
    if (!sent) {
        Log::f(tag, "could not send the attestation request: {}", sent.error().detail);
        co_return std::nullopt;
    }
    auto reply = co_await socket->receive();
    socket->close();
    if (!reply) {
        Log::f(tag, "the attestation reply failed: {}", reply.error().detail);
        co_return std::nullopt;
    }
    if (!*reply || (*reply)->empty()) {
        Log::line(tag, "the attestation service gave no token (this client was not accepted; the server logs why)");
        co_return std::nullopt;
    }
    co_return std::move(**reply);
}

// The watchdog: a service that does not answer within the timeout is abandoned.
asio::awaitable<std::optional<std::string>> fetchWithin(std::string path, Duration timeout,
                                                        std::shared_ptr<Sleeper> sleeper) {
    using namespace asio::experimental::awaitable_operators;
    auto executor = co_await asio::this_coro::executor;
    auto socket = std::make_shared<FramedSocket>(FramedSocket::Socket(executor));
    auto outcome = co_await (requestToken(socket, path, sleeper) || sleeper->sleep(timeout));
    socket->close();
    if (outcome.index() == 1) {
        Log::f(tag, "the attestation service did not answer within {} ms",
               std::chrono::duration_cast<std::chrono::milliseconds>(timeout).count());
        co_return std::nullopt;
    }
    co_return std::get<0>(std::move(outcome));
}

}  // namespace

LiveAttestationClient::LiveAttestationClient(Options options) : options_(std::move(options)) {
    if (!options_.sleeper) options_.sleeper = std::make_shared<LiveSleeper>();
}

asio::awaitable<std::optional<std::string>> LiveAttestationClient::fetchToken(Duration timeout) {
    // The request and its watchdog race on a strand of their own.
    auto strand = asio::make_strand(co_await asio::this_coro::executor);
    co_return co_await asio::co_spawn(strand, fetchWithin(options_.attestationSocketPath, timeout, options_.sleeper),
                                      asio::use_awaitable);
}

}  // namespace ql
