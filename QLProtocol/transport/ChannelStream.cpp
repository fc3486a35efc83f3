#include "QLProtocol/transport/ChannelStream.h"

#include "QLProtocol/proto/envelope.pb.h"
#include "QLProtocol/transport/AttestationTokenCache.h"
#include "QLProtocol/transport/CallRefusal.h"

namespace ql {

namespace wire = ql4::transport::v1;

ChannelStream& ChannelStream::operator=(ChannelStream&& other) noexcept {
    if (this != &other) {
        cancel();
        socket_ = std::move(other.socket_);
        error_ = std::move(other.error_);
        ended_ = other.ended_;
        socketPath_ = std::move(other.socketPath_);
        tokenCache_ = std::move(other.tokenCache_);
        token_ = std::move(other.token_);
    }
    return *this;
}

ChannelStream::~ChannelStream() { cancel(); }

ChannelStream ChannelStream::failed(TransportError error) {
    ChannelStream stream;
    stream.error_ = std::move(error);
    return stream;
}

void ChannelStream::cancel() {
    if (socket_) socket_->close();
}

TransportError ChannelStream::fail(TransportError error) {
    error_ = error;
    cancel();
    return error;
}

asio::awaitable<tl::expected<std::optional<std::string>, TransportError>> ChannelStream::next() {
    using Result = tl::expected<std::optional<std::string>, TransportError>;
    if (error_) co_return tl::unexpected(*error_);
    if (ended_) co_return Result{std::nullopt};
    if (!socket_ || !socket_->isOpen()) co_return tl::unexpected(fail(TransportError::channelClosed()));

    auto socket = socket_;  // keeps the connection alive while the receive is pending
    auto frame = co_await socket->receive();
    // Nothing below awaits another coroutine before the error is recorded: once the awaiting
    // coroutine has been cancelled, every further co_await in it throws.
    if (!frame) {
        if (frame.error().code == asio::error::operation_aborted) {
            co_return tl::unexpected(fail(TransportError::receiveFailed("the call was cancelled", socketPath_)));
        }
        co_return tl::unexpected(fail(TransportError::receiveFailed(frame.error().detail, socketPath_)));
    }
    if (!*frame) co_return tl::unexpected(fail(TransportError::channelClosed()));

    auto result = decode(**frame);
    if (result) co_return Result{std::move(*result)};
    if (result.error().isUnauthenticated() && tokenCache_) co_await tokenCache_->invalidate(token_);
    co_return tl::unexpected(result.error());
}

tl::expected<std::optional<std::string>, TransportError> ChannelStream::decode(std::string& frame) {
    using Result = tl::expected<std::optional<std::string>, TransportError>;
    wire::WireStreamResponse element;
    if (!element.ParseFromString(frame)) {
        return tl::unexpected(fail(TransportError::invalidFrame("the frame does not decode as a WireStreamResponse")));
    }
    const int kind = static_cast<int>(element.kind());
    // A refusal sent as a plain WireResponse (servers that predate stream refusals) decodes
    // here with the status in `kind` and the message in `body`; a genuine END_OK or END_ERROR
    // never carries a body, so such a frame is read as the refusal it is rather than as a
    // normal end.
    const bool plainResponse = (kind == wire::WireStreamResponse::END_OK || kind == wire::WireStreamResponse::END_ERROR)
                                   ? !element.body().empty() && element.error_message().empty()
                                   : kind > wire::WireStreamResponse::END_ERROR;
    if (plainResponse) {
        wire::WireResponse response;
        if (response.ParseFromString(frame) && wire::WireResponse::Status_IsValid(response.status()) &&
            response.status() != wire::WireResponse::OK) {
            return tl::unexpected(fail(TransportError::statusError(response.status(), response.error_message())));
        }
        return tl::unexpected(fail(TransportError::serverFailed("stream kind UNRECOGNIZED")));
    }
    switch (element.kind()) {
        case wire::WireStreamResponse::DATA:
            return Result{std::move(*element.mutable_body())};
        case wire::WireStreamResponse::END_OK:
            ended_ = true;
            cancel();
            return Result{std::nullopt};
        case wire::WireStreamResponse::END_ERROR:
            if (auto refusal = CallRefusal::fromStreamEnd(element.error_message())) {
                return tl::unexpected(fail(TransportError::statusError(refusal->status, refusal->message)));
            }
            return tl::unexpected(fail(TransportError::serverFailed(element.error_message())));
        default:
            return tl::unexpected(fail(TransportError::serverFailed("stream kind UNRECOGNIZED")));
    }
}

}  // namespace ql
