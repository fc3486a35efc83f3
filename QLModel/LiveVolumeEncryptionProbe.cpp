#include "QLModel/LiveVolumeEncryptionProbe.h"

#include "QLModel/PartitionContentName.h"

#include <algorithm>
#include <cctype>

namespace ql {
namespace {

bool sameGUID(std::string_view a, std::string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
        return std::toupper(static_cast<unsigned char>(x)) == std::toupper(static_cast<unsigned char>(y));
    });
}

}  // namespace

VolumeEncryptionState LiveVolumeEncryptionProbe::encryptionState(const std::string& device) {
    return decide(device, lookUp(device));
}

VolumeEncryptionState LiveVolumeEncryptionProbe::decide(const std::string& device,
                                                        const std::optional<EncryptionMediaProperties>& properties) {
    VolumeEncryptionState state;
    state.bsdDevice = device;
    if (!properties || !properties->encrypted) return state;
    state.isLocked = properties->locked;
    state.volumeName = properties->fullName;
    if (properties->isAPFSVolume && properties->content &&
        sameGUID(*properties->content, PartitionContentName::apfsVolumeContentGUID)) {
        state.encType = VolumeEncryptionType::apfs;
        if (properties->uuid) {
            if (auto uuid = Uuid::parse(*properties->uuid)) state.unlockUUID = *uuid;
        }
        return state;
    }
    state.encType = VolumeEncryptionType::unsupported;
    return state;
}

}  // namespace ql
