#include "QLProtocol/transport/AttestationPeerPolicy.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>

namespace ql {

namespace {

std::string resolved(const std::string& path) {
    std::error_code ec;
    auto canonical = std::filesystem::weakly_canonical(path, ec);
    return ec ? path : canonical.string();
}

constexpr std::string_view deletedSuffix = " (deleted)";

}  // namespace

AttestationPeerPolicy AttestationPeerPolicy::forServer(std::vector<std::string> clientExecutables, uid_t serverUid) {
    AttestationPeerPolicy policy;
    policy.clientExecutables = std::move(clientExecutables);
    if (serverUid != 0) policy.requiredUid = serverUid;
    return policy;
}

tl::expected<std::string, std::string> AttestationPeerPolicy::check(const AttestationPeer& peer) const {
    const auto who = fmt::format("pid {}, uid {}, {}", peer.pid, peer.uid,
                                 peer.executable.empty() ? std::string("unknown executable") : peer.executable);
    if (requiredUid && peer.uid != *requiredUid) {
        return tl::unexpected(fmt::format("{}: runs as another user than this server (uid {})", who, *requiredUid));
    }
    if (peer.executable.empty()) return tl::unexpected(who + ": its executable could not be identified");
    if (peer.executable.size() > deletedSuffix.size() &&
        peer.executable.compare(peer.executable.size() - deletedSuffix.size(), deletedSuffix.size(), deletedSuffix) ==
            0) {
        return tl::unexpected(who + ": its executable was replaced or deleted since it started");
    }
    const auto executable = resolved(peer.executable);
    const bool known = std::any_of(clientExecutables.begin(), clientExecutables.end(),
                                   [&](const std::string& allowed) { return resolved(allowed) == executable; });
    if (!known) return tl::unexpected(who + ": not a Quillo client executable");
    return who;
}

}  // namespace ql
