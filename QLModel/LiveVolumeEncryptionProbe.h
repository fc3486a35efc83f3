#pragma once

#include "QLModel/VolumeEncryptionProbe.h"

#include <optional>
#include <string>

namespace ql {

// The properties of a device's registry media object that decide its encryption state.
struct EncryptionMediaProperties {
    bool encrypted = false;               // "Encrypted"
    bool locked = false;                  // "Locked"
    std::optional<std::string> content;   // "Content"
    std::optional<std::string> uuid;      // "UUID"
    std::optional<std::string> fullName;  // "FullName"
    bool isAPFSVolume = false;            // the object is an APFS volume
    friend bool operator==(const EncryptionMediaProperties&, const EncryptionMediaProperties&) = default;
};

// The live encryption probe. The registry lookup is the platform's: on macOS the I/O registry
// media object of the device; on Linux the device's own superblock (a LUKS volume is encrypted,
// and locked while no mapping holds it open), which the system can't unlock itself.
//
// Deciding is portable:
//   1. not encrypted: `none`, not locked, no unlock UUID, no name;
//   2. encrypted, an APFS volume object, and content the APFS volume GUID: `apfs`, locked from
//      "Locked", unlock UUID from "UUID", name from "FullName";
//   3. encrypted otherwise: `unsupported`, locked from "Locked", no unlock UUID, name from
//      "FullName";
//   4. no registry object: `none` with only the device name.
class LiveVolumeEncryptionProbe final : public VolumeEncryptionProbe {
public:
    struct Options {
        // Linux only.
        std::string sysClassBlock = "/sys/class/block";
        std::string devDirectory = "/dev";
    };

    LiveVolumeEncryptionProbe() = default;
    explicit LiveVolumeEncryptionProbe(Options options) : options_(std::move(options)) {}

    VolumeEncryptionState encryptionState(const std::string& device) override;

    // The platform's lookup; absent when there is no registry object for the device.
    std::optional<EncryptionMediaProperties> lookUp(const std::string& device) const;

    static VolumeEncryptionState decide(const std::string& device,
                                        const std::optional<EncryptionMediaProperties>& properties);

private:
    Options options_;
};

}  // namespace ql
