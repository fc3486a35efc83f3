#pragma once

#include "QLSupport/Uuid.h"

#include <optional>
#include <string>

namespace ql {

// How a volume is encrypted: not at all, with APFS encryption (which the system can unlock), or
// in a way it can't unlock.
enum class VolumeEncryptionType { none, apfs, unsupported };

// The encryption state of one device.
struct VolumeEncryptionState {
    std::string bsdDevice;
    VolumeEncryptionType encType = VolumeEncryptionType::none;
    bool isLocked = false;
    // The identifier to unlock with (APFS volumes).
    std::optional<Uuid> unlockUUID;
    std::optional<std::string> volumeName;

    friend bool operator==(const VolumeEncryptionState&, const VolumeEncryptionState&) = default;
};

}  // namespace ql
