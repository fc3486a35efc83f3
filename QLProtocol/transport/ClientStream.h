#pragma once

#include "QLProtocol/transport/ChannelStream.h"

#include <string>
#include <utility>

namespace ql {

// A server stream on the client, item by item as `Item` messages. Same contract as
// `ChannelStream`; an item that does not decode ends the stream with `decodeFailed`.
template <typename Item>
class ClientStream {
public:
    ClientStream() = default;
    explicit ClientStream(ChannelStream raw, std::string method) : raw_(std::move(raw)), method_(std::move(method)) {}

    asio::awaitable<tl::expected<std::optional<Item>, TransportError>> next() {
        using Result = tl::expected<std::optional<Item>, TransportError>;
        if (decodeError_) co_return tl::unexpected(*decodeError_);
        auto bytes = co_await raw_.next();
        if (!bytes) co_return tl::unexpected(bytes.error());
        if (!*bytes) co_return Result{std::nullopt};
        Item item;
        if (!item.ParseFromString(**bytes)) {
            decodeError_ = TransportError::decodeFailed("an item of " + method_ + " does not decode as " +
                                                        Item::descriptor()->full_name());
            raw_.cancel();
            co_return tl::unexpected(*decodeError_);
        }
        co_return Result{std::move(item)};
    }

    // Closes the connection; the server's producer sees the client gone.
    void cancel() { raw_.cancel(); }

private:
    ChannelStream raw_;
    std::string method_;
    std::optional<TransportError> decodeError_;
};

}  // namespace ql
