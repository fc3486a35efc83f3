#pragma once

#include "QLProtocol/transport/AttestationClient.h"

#include <memory>
#include <string>

namespace ql {

// Fetches a session token from the server's attestation service.
//
// Linux: connects to the attestation socket next to the server's socket
// (`SocketPath::attestationPath`), sends one frame holding "attest" and reads one frame holding
// the token; the server identifies this process by its credentials and executable. A server
// that refuses closes the connection without a token.
//
// macOS: sends {"attest": true} to the privileged XPC service `DaemonAttestation::machServiceName()`
// and reads the "token" data of the reply; the service checks this process's code signature.
//
// Either way a watchdog abandons a request that does not answer within the fetch timeout.
class LiveAttestationClient final : public AttestationClient {
public:
    struct Options {
        std::string attestationSocketPath{};  // Linux only
        std::shared_ptr<Sleeper> sleeper{};   // LiveSleeper when null
    };

    explicit LiveAttestationClient(Options options);

    asio::awaitable<std::optional<std::string>> fetchToken(Duration timeout) override;

private:
    Options options_;
};

}  // namespace ql
