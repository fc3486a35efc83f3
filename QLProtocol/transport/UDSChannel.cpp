#include "QLProtocol/transport/UDSChannel.h"

#include "QLProtocol/proto/envelope.pb.h"
#include "QLProtocol/transport/AttestationTokenCache.h"
#include "QLSupport/Log.h"

#include <asio/experimental/awaitable_operators.hpp>

#include <chrono>

namespace ql {

namespace wire = ql4::transport::v1;

UDSChannel::UDSChannel(Options options) : options_(std::move(options)) {
    if (!options_.sleeper) options_.sleeper = std::make_shared<LiveSleeper>();
}

namespace {

// Races the connect against the timeout. Runs on a strand of its own, so that the two branches
// never touch the socket at the same time whatever executor the caller runs on.
asio::awaitable<tl::expected<std::shared_ptr<FramedSocket>, TransportError>> connectWithin(
    std::string path, double timeoutSeconds, std::shared_ptr<Sleeper> sleeper) {
    using namespace asio::experimental::awaitable_operators;
    auto executor = co_await asio::this_coro::executor;
    auto socket = std::make_shared<FramedSocket>(FramedSocket::Socket(executor));
    const auto timeout = std::chrono::duration_cast<Duration>(std::chrono::duration<double>(timeoutSeconds));
    auto outcome = co_await (socket->connect(path, sleeper) || sleeper->sleep(timeout));
    if (outcome.index() == 1) {
        socket->close();
        co_return tl::unexpected(TransportError::connectTimedOut(timeoutSeconds, path));
    }
    if (auto ec = std::get<0>(outcome)) {
        socket->close();
        co_return tl::unexpected(TransportError::connectFailed(ec.message(), path));
    }
    socket->markReady();
    co_return socket;
}

}  // namespace

asio::awaitable<tl::expected<std::shared_ptr<FramedSocket>, TransportError>> UDSChannel::connect() {
    auto strand = asio::make_strand(co_await asio::this_coro::executor);
    co_return co_await asio::co_spawn(
        strand, connectWithin(options_.socketPath, options_.connectTimeout, options_.sleeper), asio::use_awaitable);
}

asio::awaitable<std::string> UDSChannel::sessionToken() {
    if (!options_.tokenCache) co_return std::string{};
    auto token = co_await options_.tokenCache->currentToken();
    co_return token.value_or(std::string{});
}

asio::awaitable<tl::expected<std::shared_ptr<FramedSocket>, TransportError>> UDSChannel::open(std::string method,
                                                                                              std::string body,
                                                                                              bool serverStream,
                                                                                              std::string token) {
    auto socket = co_await connect();
    if (!socket) co_return socket;
    wire::WireRequest request;
    request.set_method(std::move(method));
    request.set_body(std::move(body));
    request.set_is_server_stream(serverStream);
    request.set_session_token(std::move(token));
    auto sent = co_await (*socket)->send(request.SerializeAsString());
    if (!sent) {
        (*socket)->close();
        co_return tl::unexpected(TransportError::sendFailed(sent.error().detail, options_.socketPath));
    }
    co_return socket;
}

asio::awaitable<tl::expected<std::string, TransportError>> UDSChannel::unary(std::string method, std::string body) {
    auto token = co_await sessionToken();
    auto socket = co_await open(std::move(method), std::move(body), false, token);
    if (!socket) co_return tl::unexpected(socket.error());

    auto frame = co_await (*socket)->receive();
    (*socket)->close();
    if (!frame) co_return tl::unexpected(TransportError::receiveFailed(frame.error().detail, options_.socketPath));
    if (!*frame) co_return tl::unexpected(TransportError::channelClosed());

    wire::WireResponse response;
    if (!response.ParseFromString(**frame)) {
        co_return tl::unexpected(TransportError::invalidFrame("the frame does not decode as a WireResponse"));
    }
    if (response.status() == wire::WireResponse::OK) co_return std::move(*response.mutable_body());
    auto error = TransportError::statusError(response.status(), response.error_message());
    if (error.isUnauthenticated() && options_.tokenCache) co_await options_.tokenCache->invalidate(token);
    co_return tl::unexpected(std::move(error));
}

asio::awaitable<ChannelStream> UDSChannel::serverStream(std::string method, std::string body) {
    auto token = co_await sessionToken();
    auto socket = co_await open(std::move(method), std::move(body), true, token);
    if (!socket) co_return ChannelStream::failed(socket.error());
    ChannelStream stream;
    stream.socket_ = std::move(*socket);
    stream.socketPath_ = options_.socketPath;
    stream.tokenCache_ = options_.tokenCache;
    stream.token_ = std::move(token);
    co_return stream;
}

}  // namespace ql
