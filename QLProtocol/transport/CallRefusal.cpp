#include "QLProtocol/transport/CallRefusal.h"

namespace ql {

namespace wire = ql4::transport::v1;

CallRefusal CallRefusal::unknownMethod(std::string_view path) {
    return {wire::WireResponse::UNKNOWN_METHOD, "Unknown method: " + std::string(path)};
}

CallRefusal CallRefusal::wrongCallKind(std::string_view path, bool methodIsServerStream) {
    return {wire::WireResponse::UNKNOWN_METHOD,
            "Unknown method: " + std::string(path) +
                (methodIsServerStream ? " (expected server-stream)" : " (expected unary)")};
}

CallRefusal CallRefusal::decodeError(std::string message) {
    return {wire::WireResponse::DECODE_ERROR, std::move(message)};
}

CallRefusal CallRefusal::handlerError(std::string message) {
    return {wire::WireResponse::HANDLER_ERROR, std::move(message)};
}

CallRefusal CallRefusal::internalError(std::string message) {
    return {wire::WireResponse::INTERNAL_ERROR, std::move(message)};
}

CallRefusal CallRefusal::unauthenticated() {
    return {wire::WireResponse::PEER_UNAUTHENTICATED,
            "peer not attested — obtain a session token via the XPC attestation service"};
}

wire::WireResponse CallRefusal::asResponse() const {
    wire::WireResponse response;
    response.set_status(status);
    response.set_error_message(message);
    return response;
}

std::string CallRefusal::streamEndMessage() const {
    return wire::WireResponse::Status_Name(status) + ": " + message;
}

std::optional<CallRefusal> CallRefusal::fromStreamEnd(std::string_view endMessage) {
    const auto colon = endMessage.find(": ");
    if (colon == std::string_view::npos) return std::nullopt;
    wire::WireResponse::Status status{};
    if (!wire::WireResponse::Status_Parse(std::string(endMessage.substr(0, colon)), &status)) return std::nullopt;
    if (status == wire::WireResponse::OK) return std::nullopt;
    return CallRefusal{status, std::string(endMessage.substr(colon + 2))};
}

}  // namespace ql
