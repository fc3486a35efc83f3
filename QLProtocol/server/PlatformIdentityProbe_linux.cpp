#include "QLProtocol/server/PlatformIdentityProbe.h"

#include "QLSupport/AtomicFile.h"

namespace ql {

std::optional<std::string> LivePlatformIdentityProbe::platformUUID() const {
    auto text = AtomicFile::read("/sys/class/dmi/id/product_uuid");
    if (!text) return std::nullopt;  // not root, or a machine without DMI (most ARM boards, containers)
    return LinuxIdentityFiles::productUUIDFromText(*text);
}

std::optional<std::string> LivePlatformIdentityProbe::systemMachineID() const {
    for (const char* path : {"/etc/machine-id", "/var/lib/dbus/machine-id"}) {
        if (auto text = AtomicFile::read(path)) {
            if (auto id = LinuxIdentityFiles::machineIDFromText(*text)) return id;
        }
    }
    return std::nullopt;
}

}  // namespace ql
