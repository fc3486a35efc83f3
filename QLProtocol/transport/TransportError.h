#pragma once

#include "QLProtocol/proto/envelope.pb.h"

#include <optional>
#include <string>
#include <string_view>

namespace ql {

// What a caller sees when a call over the server's socket fails. Each case renders one sentence
// (`message()`); the connection cases name the socket path when the channel knows it
// (`socketPath` not empty) and leave it out otherwise.
struct TransportError {
    enum class Kind {
        unknownMethod,   // detail: the method path
        decodeFailed,    // detail: what did not decode
        handlerThrew,    // detail: the server-side failure
        connectFailed,   // detail: the system's reason, or the timeout
        sendFailed,      // detail: the system's reason
        receiveFailed,   // detail: the system's reason
        serverFailed,    // detail: why the server's stream failed
        statusError,     // status + detail (the server's error_message)
        invalidFrame,    // detail: what was wrong with the frame
        channelClosed,   // no payload
    };
    using Status = ql4::transport::v1::WireResponse::Status;

    Kind kind = Kind::channelClosed;
    std::string detail;
    Status status = ql4::transport::v1::WireResponse::OK;  // meaningful for statusError only
    std::string socketPath;

    static TransportError unknownMethod(std::string method);
    static TransportError decodeFailed(std::string detail);
    static TransportError handlerThrew(std::string detail);
    static TransportError connectFailed(std::string detail, std::string socketPath = {});
    // The connect did not complete within `seconds`: "connect timed out after 3.0s".
    static TransportError connectTimedOut(double seconds, std::string socketPath = {});
    static TransportError sendFailed(std::string detail, std::string socketPath = {});
    static TransportError receiveFailed(std::string detail, std::string socketPath = {});
    static TransportError serverFailed(std::string detail);
    static TransportError statusError(Status status, std::string message);
    static TransportError invalidFrame(std::string detail);
    static TransportError channelClosed();

    std::string message() const;
    // True for a call the server refused because the session token was missing or expired.
    bool isUnauthenticated() const {
        return kind == Kind::statusError && status == ql4::transport::v1::WireResponse::PEER_UNAUTHENTICATED;
    }

    // A duration in seconds as the timeout text shows it: integral values keep one decimal
    // ("3.0"), others print their shortest form ("0.25").
    static std::string formatSeconds(double seconds);

    friend bool operator==(const TransportError&, const TransportError&) = default;
};

}  // namespace ql
