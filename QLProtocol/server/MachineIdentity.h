#pragma once

#include "QLProtocol/server/PlatformIdentityProbe.h"
#include "QLSupport/Json.h"

#include <tl/expected.hpp>

#include <filesystem>
#include <optional>
#include <string>

namespace ql {

// How the copy server tells this machine apart, in diagnostics and disk-image claims. Stored in
// the state directory as {"machineID": "...", "platformUUID": "..."}; `machineID` is minted once
// and kept, `platformUUID` is re-read from the hardware at every start (and the stored value kept
// when it cannot be read).
struct DaemonMachineIdentity {
    std::string machineID;
    std::optional<std::string> platformUUID;

    Json toJson() const;
    static tl::expected<DaemonMachineIdentity, std::string> fromJson(const Json& json);

    friend bool operator==(const DaemonMachineIdentity&, const DaemonMachineIdentity&) = default;
};

// Loads the stored identity, minting the machine id on first use: from the system's own
// installation identity when it has one (so a reinstall of the server keeps the same id),
// otherwise a fresh random UUID. A store that cannot be written still yields an identity for
// this run (logged), minted the same way next time.
struct MachineIdentity {
    static DaemonMachineIdentity loadOrMint(const std::filesystem::path& file, const PlatformIdentityProbe& probe);
};

}  // namespace ql
