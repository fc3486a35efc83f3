#include "QLModel/LiveVolumeEncryptionProbe.h"

#include "QLModel/LinuxBlockDeviceProbe.h"

#include <filesystem>

namespace ql {

std::optional<EncryptionMediaProperties> LiveVolumeEncryptionProbe::lookUp(const std::string& requested) const {
    std::string device = requested.rfind("/dev/", 0) == 0 ? requested.substr(5) : requested;
    LinuxBlockDeviceProbe::Options probeOptions;
    probeOptions.sysClassBlock = options_.sysClassBlock;
    probeOptions.devDirectory = options_.devDirectory;
    LinuxBlockDeviceProbe blockDevices(nullptr, probeOptions);
    if (!blockDevices.exists(device)) return std::nullopt;

    EncryptionMediaProperties properties;
    auto facts = blockDevices.readFilesystem(device);
    if (!facts || !*facts || (*facts)->type != "crypto_LUKS") return properties;
    properties.encrypted = true;
    properties.uuid = (*facts)->uuid;
    properties.fullName = (*facts)->label;
    // Unlocked means a device-mapper mapping holds the volume open.
    std::error_code error;
    std::filesystem::directory_iterator holders(std::filesystem::path(options_.sysClassBlock) / device / "holders",
                                                error);
    properties.locked = error || holders == std::filesystem::directory_iterator();
    return properties;
}

}  // namespace ql
