#include "QLProtocol/transport/TransportError.h"

#include <fmt/format.h>

#include <cmath>
#include <utility>

namespace ql {

namespace {
TransportError make(TransportError::Kind kind, std::string detail, std::string socketPath = {}) {
    TransportError e;
    e.kind = kind;
    e.detail = std::move(detail);
    e.socketPath = std::move(socketPath);
    return e;
}
}  // namespace

TransportError TransportError::unknownMethod(std::string method) { return make(Kind::unknownMethod, std::move(method)); }
TransportError TransportError::decodeFailed(std::string detail) { return make(Kind::decodeFailed, std::move(detail)); }
TransportError TransportError::handlerThrew(std::string detail) { return make(Kind::handlerThrew, std::move(detail)); }
TransportError TransportError::connectFailed(std::string detail, std::string socketPath) {
    return make(Kind::connectFailed, std::move(detail), std::move(socketPath));
}
TransportError TransportError::connectTimedOut(double seconds, std::string socketPath) {
    return connectFailed("connect timed out after " + formatSeconds(seconds) + "s", std::move(socketPath));
}
TransportError TransportError::sendFailed(std::string detail, std::string socketPath) {
    return make(Kind::sendFailed, std::move(detail), std::move(socketPath));
}
TransportError TransportError::receiveFailed(std::string detail, std::string socketPath) {
    return make(Kind::receiveFailed, std::move(detail), std::move(socketPath));
}
TransportError TransportError::serverFailed(std::string detail) { return make(Kind::serverFailed, std::move(detail)); }
TransportError TransportError::statusError(Status status, std::string message) {
    auto e = make(Kind::statusError, std::move(message));
    e.status = status;
    return e;
}
TransportError TransportError::invalidFrame(std::string detail) { return make(Kind::invalidFrame, std::move(detail)); }
TransportError TransportError::channelClosed() { return make(Kind::channelClosed, {}); }

std::string TransportError::message() const {
    const bool withPath = !socketPath.empty();
    switch (kind) {
        case Kind::unknownMethod:
            return "server doesn't know the method " + detail + ". Daemon may be an older build.";
        case Kind::decodeFailed:
            return "server returned bytes the client couldn't decode: " + detail;
        case Kind::handlerThrew:
            return "server-side error: " + detail;
        case Kind::connectFailed:
            return withPath ? "cannot connect to " + socketPath + " — " + detail + ". Is qlcopyserver running?"
                            : "cannot connect — " + detail + ". Is qlcopyserver running?";
        case Kind::sendFailed:
            return withPath ? "could not send the request to " + socketPath + " — " + detail +
                                  ". Is qlcopyserver running?"
                            : "could not send the request — " + detail + ". Is qlcopyserver running?";
        case Kind::receiveFailed:
            return withPath ? "connection to " + socketPath + " dropped while reading the reply — " + detail +
                                  ". Is qlcopyserver running?"
                            : "connection dropped while reading the reply — " + detail + ". Is qlcopyserver running?";
        case Kind::serverFailed:
            return "server failure: " + detail;
        case Kind::statusError:
            return "server returned error: " + detail;
        case Kind::invalidFrame:
            return "wire framing error: " + detail;
        case Kind::channelClosed:
            return "connection closed unexpectedly";
    }
    return "connection closed unexpectedly";
}

std::string TransportError::formatSeconds(double seconds) {
    if (std::isfinite(seconds) && seconds == std::floor(seconds) && std::fabs(seconds) < 1e15) {
        return fmt::format("{:.1f}", seconds);
    }
    return fmt::format("{}", seconds);
}

}  // namespace ql
