#pragma once

#include "QLProtocol/proto/envelope.pb.h"

#include <optional>
#include <string>
#include <string_view>

namespace ql {

// A call the server answers with a status other than OK: the status and its text. A unary call
// gets it as a `WireResponse`; a stream gets it as an END_ERROR whose message is the status
// name, ": " and the text, so that a refused stream can never read as an empty, successful one
// (the client turns it back into the same error a unary call gets).
struct CallRefusal {
    using Status = ql4::transport::v1::WireResponse::Status;

    Status status = ql4::transport::v1::WireResponse::INTERNAL_ERROR;
    std::string message;

    // "Unknown method: " + path.
    static CallRefusal unknownMethod(std::string_view path);
    // A method called with the wrong streaming flag: "Unknown method: " + path +
    // " (expected server-stream)" for a stream method called as unary, " (expected unary)" for
    // the reverse.
    static CallRefusal wrongCallKind(std::string_view path, bool methodIsServerStream);
    static CallRefusal decodeError(std::string message);
    static CallRefusal handlerError(std::string message);
    static CallRefusal internalError(std::string message);
    // "peer not attested — obtain a session token via the XPC attestation service".
    static CallRefusal unauthenticated();

    ql4::transport::v1::WireResponse asResponse() const;
    // "STATUS_NAME: message", the END_ERROR text of a refused stream.
    std::string streamEndMessage() const;
    // The refusal an END_ERROR message carries, when it begins with a non-OK status name and
    // ": "; nullopt for any other stream failure.
    static std::optional<CallRefusal> fromStreamEnd(std::string_view endMessage);

    friend bool operator==(const CallRefusal&, const CallRefusal&) = default;
};

}  // namespace ql
