#pragma once

#include "QLProtocol/transport/FramedSocket.h"
#include "QLProtocol/transport/TransportError.h"

#include <asio.hpp>
#include <tl/expected.hpp>

#include <memory>
#include <optional>
#include <string>

namespace ql {

class AttestationTokenCache;

// The client end of one server-streaming call: the items' bytes as the server sends them, on
// the call's own connection.
//
//     auto stream = co_await channel.serverStream(path, body);
//     for (;;) {
//         auto item = co_await stream.next();
//         if (!item) { /* item.error(): the call failed */ break; }
//         if (!*item) break;  // the server ended the stream normally
//         use(**item);
//     }
//
// A stream the server refused (unknown method, undecodable request, wrong call kind, missing
// session token) or failed ends with the matching `TransportError`, never as an empty normal
// end. `cancel()` (or destroying the stream) closes the connection; the server sees the client
// gone and stops producing. Use a stream from one strand (or a single-threaded context): a
// coroutine that races `next()` against a timer with `||` must run on one, since the two
// branches would otherwise run on different threads. Do not destroy a stream while a `next()`
// is pending (cancel it instead, or cancel the awaiting coroutine).
class ChannelStream {
public:
    ChannelStream() = default;
    ChannelStream(ChannelStream&&) noexcept = default;
    ChannelStream& operator=(ChannelStream&& other) noexcept;
    ChannelStream(const ChannelStream&) = delete;
    ChannelStream& operator=(const ChannelStream&) = delete;
    ~ChannelStream();

    // The next item; nullopt once the server ended the stream normally; an error when it failed
    // (every later call returns the same error).
    asio::awaitable<tl::expected<std::optional<std::string>, TransportError>> next();

    void cancel();
    bool finished() const { return ended_ || error_.has_value(); }

private:
    friend class UDSChannel;
    static ChannelStream failed(TransportError error);

    // Records the terminal error and closes the connection.
    TransportError fail(TransportError error);
    tl::expected<std::optional<std::string>, TransportError> decode(std::string& frame);

    std::shared_ptr<FramedSocket> socket_;
    std::optional<TransportError> error_;
    bool ended_ = false;
    std::string socketPath_;
    std::shared_ptr<AttestationTokenCache> tokenCache_;
    std::string token_;
};

}  // namespace ql
