#pragma once

#include "QLProtocol/transport/AttestationPeerPolicy.h"
#include "QLProtocol/transport/AttestationSessions.h"
#include "QLSupport/Actor.h"

#include <tl/expected.hpp>

#include <chrono>
#include <memory>
#include <optional>
#include <string>

namespace ql {

// The server side of attestation: issues session tokens (`AttestationSessions::issue`) to
// verified clients.
//
// Linux: listens on a second Unix socket next to the server's socket. For each connection it
// reads one frame holding "attest", identifies the caller with SO_PEERCRED, resolves its
// executable through "/proc/<pid>/exe" and checks it against `policy` (a configured Quillo
// client executable, and in user mode the server's own user). A verified caller gets one frame
// holding the token; any other is logged with the reason and the connection is closed without
// one. The socket file is world-connectable like the main socket; stale files are handled the
// same way.
//
// macOS: the XPC Mach service `DaemonAttestation::machServiceName()`, accepting only peers that
// satisfy `DaemonAttestation::codeSigningRequirement()`; a message with key "attest" is answered
// with the token under key "token". (`socketPath` and `policy` are not used there.)
class LiveAttestationListener : public Actor {
public:
    struct Options {
        std::string socketPath{};  // Linux: `SocketPath::attestationPath(main socket)`
        AttestationPeerPolicy policy{};
        std::optional<unsigned> socketMode{};  // as UDSServer: 0666 as root, 0600 otherwise
        Duration requestTimeout = std::chrono::seconds{5};
    };

    LiveAttestationListener(const Executor& executor, Options options, std::shared_ptr<AttestationSessions> sessions);
    ~LiveAttestationListener() override;

    tl::expected<void, std::string> start();
    void stop();

    struct State;

private:
    std::shared_ptr<State> state_;
};

}  // namespace ql
