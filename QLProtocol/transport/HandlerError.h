#pragma once

#include "QLProtocol/transport/TransportError.h"

#include <string>
#include <string_view>

namespace ql {

// The failure a service provider returns instead of a response. The server answers it with
// HANDLER_ERROR and the description; a stream that fails before its first item does the same
// (as an END_ERROR). `notAvailable` is what a provider answers for a method this server does
// not offer (yet): the description names the method path.
struct HandlerError {
    enum class Kind { failed, notAvailable };

    Kind kind = Kind::failed;
    std::string message;

    static HandlerError failed(std::string description) { return {Kind::failed, std::move(description)}; }
    static HandlerError notAvailable() { return {Kind::notAvailable, {}}; }
    // A transport failure met while serving (for example a call to another server) is reported
    // with its own text, e.g. "server-side error: …".
    static HandlerError from(const TransportError& error) { return failed(error.message()); }

    // The text sent to the peer for a call of `methodPath`.
    std::string description(std::string_view methodPath) const {
        if (kind == Kind::notAvailable) return std::string(methodPath) + " is not available on this server";
        return message;
    }

    friend bool operator==(const HandlerError&, const HandlerError&) = default;
};

}  // namespace ql
