#include "QLProtocol/transport/VolumeBridge.h"

#include <fmt/format.h>

#include <chrono>
#include <cstdint>
#include <limits>
#include <utility>

#include "QLModel/Overloaded.h"
#include "QLSupport/Uuid.h"

namespace ql {

namespace wire = ql4::transport::v1;

namespace {

// The two numberings side by side; every model case appears exactly once.
constexpr std::pair<PartitionMapType, wire::PartitionMapType> kPartitionMapTypes[] = {
    {PartitionMapType::gpt, wire::PMT_GPT},         {PartitionMapType::mbr, wire::PMT_MBR},
    {PartitionMapType::apm, wire::PMT_APM},         {PartitionMapType::wholeDisk, wire::PMT_WHOLE_DISK},
    {PartitionMapType::network, wire::PMT_NETWORK}, {PartitionMapType::diskImage, wire::PMT_DISK_IMAGE},
    {PartitionMapType::unknown, wire::PMT_UNKNOWN},
};

constexpr std::pair<FilesystemFamily, wire::FilesystemFamily> kFilesystemFamilies[] = {
    {FilesystemFamily::apfsContainer, wire::FF_APFS_CONTAINER},
    {FilesystemFamily::apfs, wire::FF_APFS},
    {FilesystemFamily::hfsPlus, wire::FF_HFS_PLUS},
    {FilesystemFamily::exfat, wire::FF_EXFAT},
    {FilesystemFamily::fat32, wire::FF_FAT32},
    {FilesystemFamily::ntfs, wire::FF_NTFS},
    {FilesystemFamily::smb, wire::FF_SMB},
    {FilesystemFamily::afp, wire::FF_AFP},
    {FilesystemFamily::nfs, wire::FF_NFS},
    {FilesystemFamily::other, wire::FF_OTHER},
};

constexpr std::pair<APFSVolumeRole::Kind, wire::APFSVolumeRole::Known> kRoleKinds[] = {
    {APFSVolumeRole::Kind::system, wire::APFSVolumeRole::SYSTEM},
    {APFSVolumeRole::Kind::data, wire::APFSVolumeRole::DATA},
    {APFSVolumeRole::Kind::preboot, wire::APFSVolumeRole::PREBOOT},
    {APFSVolumeRole::Kind::recovery, wire::APFSVolumeRole::RECOVERY},
    {APFSVolumeRole::Kind::vm, wire::APFSVolumeRole::VM},
    {APFSVolumeRole::Kind::other, wire::APFSVolumeRole::OTHER},
};

constexpr std::pair<VolumeTarget::Kind, wire::VolumeTarget::Kind> kTargetKinds[] = {
    {VolumeTarget::Kind::wholeFilesystem, wire::VolumeTarget::WHOLE_FILESYSTEM},
    {VolumeTarget::Kind::apfsVolumeGroup, wire::VolumeTarget::APFS_VOLUME_GROUP},
    {VolumeTarget::Kind::apfsVolumeByRole, wire::VolumeTarget::APFS_VOLUME_BY_ROLE},
};

template <typename Model, typename Wire, std::size_t N>
Wire wireFor(const std::pair<Model, Wire> (&table)[N], Model value) {
    for (const auto& [model, wireValue] : table) {
        if (model == value) return wireValue;
    }
    return Wire{};  // unreachable: every model case is in its table
}

// The model case for a wire number; 0 and numbers missing from the table are refused under the
// enum's name ("PartitionMapType", or "PartitionMapType(99)" for an unknown number).
template <typename Model, typename Wire, std::size_t N>
tl::expected<Model, VolumeBridgeError> modelFor(const std::pair<Model, Wire> (&table)[N], Wire value,
                                                std::string_view enumName) {
    const int number = static_cast<int>(value);
    if (number == 0) return tl::unexpected(VolumeBridgeError::unspecifiedEnum(std::string(enumName)));
    for (const auto& [model, wireValue] : table) {
        if (static_cast<int>(wireValue) == number) return model;
    }
    return tl::unexpected(VolumeBridgeError::unspecifiedEnum(fmt::format("{}({})", enumName, number)));
}

tl::expected<Uuid, VolumeBridgeError> uuidField(const std::string& bytes, std::string_view path) {
    auto uuid = UUIDCodec::decode(bytes);
    if (!uuid) return tl::unexpected(VolumeBridgeError::malformedUUID(std::string(path), uuid.error().count));
    return *uuid;
}

std::int64_t unixNanos(ModelDate instant) {
    // Whole seconds times 10^9, held at the ends of the int64 range rather than overflowing
    // (about 292 years either side of 1970).
    constexpr std::int64_t perSecond = 1'000'000'000;
    const std::int64_t seconds = instant.time_since_epoch().count();
    if (seconds > std::numeric_limits<std::int64_t>::max() / perSecond) return std::numeric_limits<std::int64_t>::max();
    if (seconds < std::numeric_limits<std::int64_t>::min() / perSecond) return std::numeric_limits<std::int64_t>::min();
    return seconds * perSecond;
}

ModelDate modelDateFromUnixNanos(std::int64_t nanos) {
    return std::chrono::floor<std::chrono::seconds>(
        std::chrono::sys_time<std::chrono::nanoseconds>(std::chrono::nanoseconds(nanos)));
}

}  // namespace

wire::PartitionMapType VolumeBridge::toWire(PartitionMapType type) { return wireFor(kPartitionMapTypes, type); }

wire::FilesystemFamily VolumeBridge::toWire(FilesystemFamily family) { return wireFor(kFilesystemFamilies, family); }

wire::VolumeKey VolumeBridge::toWire(const VolumeKey& key) {
    wire::VolumeKey out;
    std::visit(Overloaded{
                   [&](const VolumeKey::GPTPartitionGUID& c) { out.set_gpt_partition_guid(UUIDCodec::encode(c.guid)); },
                   [&](const VolumeKey::WholeDiskAPFSContainer& c) {
                       out.set_whole_disk_apfs_container_uuid(UUIDCodec::encode(c.containerUUID));
                   },
                   [&](const VolumeKey::WholeDiskVolume& c) {
                       out.set_whole_disk_volume_uuid(UUIDCodec::encode(c.volumeUUID));
                   },
                   [&](const VolumeKey::MBRSlice& c) {
                       // The device serial and partition index stay empty: the volume UUID is the key.
                       out.mutable_mbr_slice()->set_volume_uuid(UUIDCodec::encode(c.volumeUUID));
                   },
                   [&](const VolumeKey::APMSlice& c) {
                       out.mutable_apm_slice()->set_volume_uuid(UUIDCodec::encode(c.volumeUUID));
                   },
                   [&](const VolumeKey::DiskImage& c) {
                       auto* image = out.mutable_disk_image();
                       image->set_internal_guid(UUIDCodec::encode(c.internalGUID));
                       std::visit(Overloaded{
                                      [&](const DiskImageHost::NetworkShare& h) { image->set_host_share_url(h.url); },
                                      [&](const DiskImageHost::LocalVolume& h) {
                                          image->set_host_volume_uuid(UUIDCodec::encode(h.volumeUUID));
                                      },
                                  },
                                  c.host.value);
                       image->set_relative_path(c.relativePath);
                   },
                   [&](const VolumeKey::NetworkShare& c) { out.mutable_network_share()->set_url(c.url); },
               },
               key.value);
    return out;
}

wire::APFSVolumeRole VolumeBridge::toWire(const APFSVolumeRole& role) {
    wire::APFSVolumeRole out;
    out.set_kind(wireFor(kRoleKinds, role.kind()));
    if (role.kind() == APFSVolumeRole::Kind::other) out.set_other_name(role.otherName());
    return out;
}

wire::VolumeTarget VolumeBridge::toWire(const VolumeTarget& target) {
    wire::VolumeTarget out;
    out.set_kind(wireFor(kTargetKinds, target.kind()));
    if (const APFSVolumeRole* role = target.role()) *out.mutable_role() = toWire(*role);
    return out;
}

wire::VolumeInvariants VolumeBridge::toWire(const VolumeInvariants& invariants) {
    wire::VolumeInvariants out;
    out.set_partition_size_bytes(invariants.partitionSizeBytes);
    out.set_partition_map_type(toWire(invariants.partitionMapType));
    out.set_filesystem_family(toWire(invariants.filesystemFamily));
    if (invariants.hardwareSerial) out.set_hardware_serial(invariants.hardwareSerial->value);
    return out;
}

wire::VolumeRef VolumeBridge::toWire(const VolumeRef& ref) {
    wire::VolumeRef out;
    *out.mutable_key() = toWire(ref.key);
    *out.mutable_target() = toWire(ref.target);
    *out.mutable_invariants() = toWire(ref.invariants);
    out.set_display_name(ref.displayName);
    if (ref.lastResolvedAt) out.set_last_resolved_at_unix_nanos(unixNanos(*ref.lastResolvedAt));
    if (ref.subpath) out.set_subpath(*ref.subpath);
    return out;
}

VolumeBridge::Result<PartitionMapType> VolumeBridge::fromWire(wire::PartitionMapType type) {
    return modelFor(kPartitionMapTypes, type, "PartitionMapType");
}

VolumeBridge::Result<FilesystemFamily> VolumeBridge::fromWire(wire::FilesystemFamily family) {
    return modelFor(kFilesystemFamilies, family, "FilesystemFamily");
}

VolumeBridge::Result<VolumeKey> VolumeBridge::fromWire(const wire::VolumeKey& key) {
    using Fail = tl::unexpected<VolumeBridgeError>;
    switch (key.kind_case()) {
        case wire::VolumeKey::KIND_NOT_SET:
            break;
        case wire::VolumeKey::kGptPartitionGuid:
            return uuidField(key.gpt_partition_guid(), "VolumeKey.gpt_partition_guid")
                .map(&VolumeKey::gptPartitionGUID);
        case wire::VolumeKey::kWholeDiskApfsContainerUuid:
            return uuidField(key.whole_disk_apfs_container_uuid(), "VolumeKey.whole_disk_apfs_container_uuid")
                .map(&VolumeKey::wholeDiskAPFSContainer);
        case wire::VolumeKey::kWholeDiskVolumeUuid:
            return uuidField(key.whole_disk_volume_uuid(), "VolumeKey.whole_disk_volume_uuid")
                .map(&VolumeKey::wholeDiskVolume);
        case wire::VolumeKey::kMbrSlice:
            // The device serial and partition index are not part of the model's key.
            return uuidField(key.mbr_slice().volume_uuid(), "MBRSliceKey.volume_uuid").map(&VolumeKey::mbrSlice);
        case wire::VolumeKey::kApmSlice:
            return uuidField(key.apm_slice().volume_uuid(), "APMSliceKey.volume_uuid").map(&VolumeKey::apmSlice);
        case wire::VolumeKey::kNetworkShare:
            if (key.network_share().url().empty()) return Fail(VolumeBridgeError::missingField("NetworkShareKey.url"));
            return VolumeKey::networkShare(key.network_share().url());
        case wire::VolumeKey::kDiskImage: {
            const wire::DiskImageKey& image = key.disk_image();
            DiskImageHost host;
            switch (image.host_case()) {
                case wire::DiskImageKey::HOST_NOT_SET:
                    return Fail(VolumeBridgeError::missingField("DiskImageKey.host"));
                case wire::DiskImageKey::kHostShareUrl:
                    if (image.host_share_url().empty()) {
                        return Fail(VolumeBridgeError::missingField("DiskImageKey.host_share_url"));
                    }
                    host = DiskImageHost::networkShare(image.host_share_url());
                    break;
                case wire::DiskImageKey::kHostVolumeUuid: {
                    auto volume = uuidField(image.host_volume_uuid(), "DiskImageKey.host_volume_uuid");
                    if (!volume) return Fail(volume.error());
                    host = DiskImageHost::localVolume(*volume);
                    break;
                }
            }
            if (image.relative_path().empty())
                return Fail(VolumeBridgeError::missingField("DiskImageKey.relative_path"));
            auto internalGUID = uuidField(image.internal_guid(), "DiskImageKey.internal_guid");
            if (!internalGUID) return Fail(internalGUID.error());
            return VolumeKey::diskImage(std::move(host), image.relative_path(), *internalGUID);
        }
    }
    return Fail(VolumeBridgeError::missingField("VolumeKey.kind"));
}

VolumeBridge::Result<APFSVolumeRole> VolumeBridge::fromWire(const wire::APFSVolumeRole& role) {
    auto kind = modelFor(kRoleKinds, role.kind(), "APFSVolumeRole.Known");
    if (!kind) return tl::unexpected(kind.error());
    switch (*kind) {
        case APFSVolumeRole::Kind::system:
            return APFSVolumeRole::system();
        case APFSVolumeRole::Kind::data:
            return APFSVolumeRole::data();
        case APFSVolumeRole::Kind::preboot:
            return APFSVolumeRole::preboot();
        case APFSVolumeRole::Kind::recovery:
            return APFSVolumeRole::recovery();
        case APFSVolumeRole::Kind::vm:
            return APFSVolumeRole::vm();
        case APFSVolumeRole::Kind::other:
            break;
    }
    return APFSVolumeRole::other(role.other_name());
}

VolumeBridge::Result<VolumeTarget> VolumeBridge::fromWire(const wire::VolumeTarget& target) {
    auto kind = modelFor(kTargetKinds, target.kind(), "VolumeTarget.Kind");
    if (!kind) return tl::unexpected(kind.error());
    switch (*kind) {
        case VolumeTarget::Kind::wholeFilesystem:
            return VolumeTarget::wholeFilesystem();
        case VolumeTarget::Kind::apfsVolumeGroup:
            return VolumeTarget::apfsVolumeGroup();
        case VolumeTarget::Kind::apfsVolumeByRole:
            break;
    }
    if (!target.has_role()) return tl::unexpected(VolumeBridgeError::missingField("VolumeTarget.role"));
    return fromWire(target.role()).map(&VolumeTarget::apfsVolumeByRole);
}

VolumeBridge::Result<VolumeInvariants> VolumeBridge::fromWire(const wire::VolumeInvariants& invariants) {
    auto mapType = fromWire(invariants.partition_map_type());
    if (!mapType) return tl::unexpected(mapType.error());
    auto family = fromWire(invariants.filesystem_family());
    if (!family) return tl::unexpected(family.error());
    VolumeInvariants out;
    out.partitionSizeBytes = invariants.partition_size_bytes();
    out.partitionMapType = *mapType;
    out.filesystemFamily = *family;
    if (!invariants.hardware_serial().empty()) out.hardwareSerial = HardwareSerial{invariants.hardware_serial()};
    return out;
}

VolumeBridge::Result<VolumeRef> VolumeBridge::fromWire(const wire::VolumeRef& ref) {
    // An absent key, target or invariants reads as the empty message and is refused for what
    // that message lacks ("VolumeKey.kind", "VolumeTarget.Kind", "PartitionMapType").
    auto key = fromWire(ref.key());
    if (!key) return tl::unexpected(key.error());
    auto target = fromWire(ref.target());
    if (!target) return tl::unexpected(target.error());
    auto invariants = fromWire(ref.invariants());
    if (!invariants) return tl::unexpected(invariants.error());

    VolumeRef out{std::move(*key), std::move(*target), std::move(*invariants), ref.display_name(), {}, {}};
    if (!ref.subpath().empty()) out.subpath = ref.subpath();
    if (ref.last_resolved_at_unix_nanos() != 0) {
        out.lastResolvedAt = modelDateFromUnixNanos(ref.last_resolved_at_unix_nanos());
    }
    return out;
}

}  // namespace ql
