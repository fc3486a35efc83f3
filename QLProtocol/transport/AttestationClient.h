#pragma once

#include "QLSupport/Clock.h"

#include <asio.hpp>

#include <optional>
#include <string>

namespace ql {

// The client side of attestation: asks the server's attestation service for a session token.
// `LiveAttestationClient` reaches the service the platform's way (a second Unix socket on Linux,
// the XPC service on macOS); `FakeAttestationClient` stands in for tests.
class AttestationClient {
public:
    virtual ~AttestationClient() = default;

    // A fresh token, or nullopt when none could be had within `timeout` (the reason is logged).
    // Never throws.
    virtual asio::awaitable<std::optional<std::string>> fetchToken(Duration timeout) = 0;
};

}  // namespace ql
