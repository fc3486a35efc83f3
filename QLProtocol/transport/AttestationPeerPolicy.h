#pragma once

#include <tl/expected.hpp>

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace ql {

// A process on the other end of the attestation socket, as the kernel identifies it.
struct AttestationPeer {
    pid_t pid = 0;
    uid_t uid = 0;
    std::string executable;  // the resolved path of its executable ("/proc/<pid>/exe" on Linux)
};

// Who may obtain a session token over the Linux attestation socket: a process running one of
// the configured client executables and, for a user-mode server, running as the server's own
// user. (On macOS the XPC service checks the code signature instead.)
struct AttestationPeerPolicy {
    // Absolute paths of the client executables; compared after resolving symbolic links.
    std::vector<std::string> clientExecutables{};
    // The user id a peer must run as (a user-mode server's own uid); none for the root service,
    // which serves clients of every local user.
    std::optional<uid_t> requiredUid{};

    // The policy of a server running as `serverUid`: as root any user, otherwise only that user.
    static AttestationPeerPolicy forServer(std::vector<std::string> clientExecutables, uid_t serverUid);

    // On success a description of the client for the log ("pid 42, uid 1000, /usr/bin/quillo");
    // otherwise the reason it is refused.
    tl::expected<std::string, std::string> check(const AttestationPeer& peer) const;
};

}  // namespace ql
