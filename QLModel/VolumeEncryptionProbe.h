#pragma once

#include "QLModel/VolumeEncryptionState.h"

#include <string>

namespace ql {

// Tells whether a device is encrypted and locked. Never fails: a device the registry doesn't
// know reads as not encrypted. Safe to call from any thread.
class VolumeEncryptionProbe {
public:
    virtual ~VolumeEncryptionProbe() = default;
    virtual VolumeEncryptionState encryptionState(const std::string& device) = 0;
};

}  // namespace ql
