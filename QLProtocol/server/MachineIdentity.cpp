#include "QLProtocol/server/MachineIdentity.h"

#include "QLSupport/AtomicFile.h"
#include "QLSupport/Log.h"
#include "QLSupport/Uuid.h"

#include <cerrno>
#include <cstring>

namespace ql {
namespace {
constexpr std::string_view tag = "MachineIdentity";
}

Json DaemonMachineIdentity::toJson() const {
    Json json{{"machineID", machineID}};
    if (platformUUID) json["platformUUID"] = *platformUUID;
    return json;
}

tl::expected<DaemonMachineIdentity, std::string> DaemonMachineIdentity::fromJson(const Json& json) {
    if (!json.is_object()) return tl::unexpected("the identity is a JSON " + jsonTypeName(json) + ", not an object");
    auto id = json.find("machineID");
    if (id == json.end() || !id->is_string() || id->get<std::string>().empty()) {
        return tl::unexpected(std::string("machineID is missing or not a non-empty string"));
    }
    DaemonMachineIdentity identity;
    identity.machineID = id->get<std::string>();
    if (auto platform = json.find("platformUUID"); platform != json.end()) {
        if (!platform->is_string()) return tl::unexpected(std::string("platformUUID is not a string"));
        identity.platformUUID = platform->get<std::string>();
    }
    return identity;
}

DaemonMachineIdentity MachineIdentity::loadOrMint(const std::filesystem::path& file, const PlatformIdentityProbe& probe) {
    std::optional<DaemonMachineIdentity> stored;
    if (auto bytes = AtomicFile::read(file)) {
        auto parsed = parseJson(*bytes);
        auto decoded = parsed ? DaemonMachineIdentity::fromJson(*parsed)
                              : tl::expected<DaemonMachineIdentity, std::string>(tl::unexpected(parsed.error()));
        if (decoded) {
            stored = *decoded;
        } else {
            Log::line(tag, "stored identity at " + file.string() + " is unusable (" + decoded.error() +
                               "); minting a new one");
        }
    } else if (bytes.error() != ENOENT) {
        Log::line(tag, "could not read " + file.string() + " (" + std::strerror(bytes.error()) + ")");
    }

    DaemonMachineIdentity identity;
    if (stored) {
        identity.machineID = stored->machineID;
    } else if (auto system = probe.systemMachineID()) {
        identity.machineID = *system;
        Log::line(tag, "machine id " + identity.machineID + " taken from the system's machine id");
    } else {
        identity.machineID = Uuid::mint().text();
        Log::line(tag, "machine id " + identity.machineID + " minted");
    }
    identity.platformUUID = probe.platformUUID();
    // The hardware does not change; a run that cannot read it (not root) keeps what was read before.
    if (!identity.platformUUID && stored) identity.platformUUID = stored->platformUUID;

    if (!stored || !(*stored == identity)) {
        if (auto written = AtomicFile::write(file, dumpJson(identity.toJson(), 2) + "\n"); !written) {
            Log::line(tag, "could not store the machine identity: " + written.error().message());
        }
    }
    return identity;
}

}  // namespace ql
