#pragma once

#include "QLProtocol/transport/CallContext.h"
#include "QLProtocol/transport/CallRefusal.h"
#include "QLSupport/EventStream.h"

#include <asio.hpp>
#include <tl/expected.hpp>

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace ql {

// The items of one server stream as bytes, as the server writes them to the socket. A typed
// provider stream (an `EventStream<T>::Consumer`) is wrapped in one of these by the service's
// server adapter.
class ServerItemStream {
public:
    virtual ~ServerItemStream() = default;
    // The next item, serialized; nullopt when the stream has ended (`failure()` tells how).
    // Cancelling the awaiting coroutine leaves the stream as it was.
    virtual asio::awaitable<std::optional<std::string>> next() = 0;
    // Why the stream ended, when it failed.
    virtual std::optional<std::string> failure() const = 0;
    // The client went away: the producer is told and stops.
    virtual void cancel() = 0;
};

// The server half of one service, as the router sees it: given the method name within the
// service and the request bytes, either a response (unary) or a stream of items, or a refusal
// with its status. A method of the wrong call kind, or one the service does not know, is refused
// as an unknown method; a body that does not decode is a DECODE_ERROR; a provider failure a
// HANDLER_ERROR. `path` is the whole method path, for the texts; `caller` is who is calling, as
// the kernel reported it for the connection.
class ServiceHandler {
public:
    virtual ~ServiceHandler() = default;

    // The service's full name, e.g. "ql4.transport.v1.TileService".
    virtual std::string_view serviceName() const = 0;

    virtual asio::awaitable<tl::expected<std::string, CallRefusal>> unary(CallContext caller, std::string path,
                                                                          std::string method, std::string body) = 0;

    virtual asio::awaitable<tl::expected<std::unique_ptr<ServerItemStream>, CallRefusal>> stream(
        CallContext caller, std::string path, std::string method, std::string body) = 0;
};

}  // namespace ql
