#pragma once

#include <string>
#include <string_view>

// The application's reverse-DNS identifier and the vendor's signing team; both are set at build
// time (-DQL_APP_IDENTIFIER=…, -DQL_TEAM_IDENTIFIER=…).
#ifndef QL_APP_IDENTIFIER
#define QL_APP_IDENTIFIER "com.quillo.Quillo4"
#endif
#ifndef QL_TEAM_IDENTIFIER
#define QL_TEAM_IDENTIFIER ""
#endif

namespace ql {

// Constants of the attestation service.
struct DaemonAttestation {
    static constexpr std::string_view appIdentifier = QL_APP_IDENTIFIER;
    static constexpr std::string_view teamIdentifier = QL_TEAM_IDENTIFIER;

    // The request's key and the reply's key.
    static constexpr std::string_view requestKey = "attest";
    static constexpr std::string_view replyKey = "token";

    // macOS: the XPC Mach service (AppIdentifier + ".attest") and the client's label (that name
    // + ".client").
    static std::string machServiceName() { return std::string(appIdentifier) + ".attest"; }
    static std::string clientLabel() { return machServiceName() + ".client"; }

    // macOS: the code-signing requirement a peer must satisfy: an Apple-anchored generic
    // signature whose leaf certificate's organizational unit is the vendor's team. Empty when the
    // build has no team configured (the XPC service then refuses to start).
    static std::string codeSigningRequirement() {
        if (teamIdentifier.empty()) return {};
        return "anchor apple generic and certificate leaf[subject.OU] = \"" + std::string(teamIdentifier) + "\"";
    }
};

}  // namespace ql
