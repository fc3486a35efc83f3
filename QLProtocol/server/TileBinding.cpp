#include "QLProtocol/server/TileBinding.h"

#include "QLModel/FilesystemFamily.h"
#include "QLModel/PartitionMapType.h"
#include "QLProtocol/server/CanonicalShareURL.h"
#include "QLSupport/Uuid.h"

#include <filesystem>

#include <google/protobuf/util/message_differencer.h>

namespace ql {
namespace {

namespace wire = ql4::transport::v1;

std::optional<Uuid> uuidOf(const std::string& bytes) {
    auto decoded = UUIDCodec::decode(bytes);
    if (!decoded || decoded->isNil()) return std::nullopt;
    return *decoded;
}

wire::UnresolvedReason wireReason(const UnresolvedReason& reason) {
    switch (reason.kind()) {
        case UnresolvedReason::Kind::unsupportedKey: return wire::UR_UNSUPPORTED_KEY;
        case UnresolvedReason::Kind::probeFailed: return wire::UR_PROBE_FAILED;
        case UnresolvedReason::Kind::imageHostUnmounted:
        case UnresolvedReason::Kind::notAttached: return wire::UR_NOT_ATTACHED;
        case UnresolvedReason::Kind::volumeMissing:
        case UnresolvedReason::Kind::imageFileMissing: return wire::UR_VOLUME_MISSING;
    }
    return wire::UR_UNSPECIFIED;
}

}  // namespace

bool TileBinding::isEmpty(const Binding& binding) {
    return google::protobuf::util::MessageDifferencer::Equals(binding, Binding::default_instance());
}

std::optional<VolumeKey> TileBinding::key(const Binding& b) {
    if (b.has_disk_image()) {
        const auto& d = b.disk_image();
        std::optional<DiskImageHost> host;
        if (d.host_case() == wire::DiskImageBinding::kHostShareUrl && !d.host_share_url().empty()) {
            host = DiskImageHost::networkShare(d.host_share_url());
        } else if (d.host_case() == wire::DiskImageBinding::kHostVolumeUuid) {
            if (auto uuid = uuidOf(d.host_volume_uuid())) host = DiskImageHost::localVolume(*uuid);
        }
        if (!host || d.relative_path().empty()) return std::nullopt;
        auto guid = UUIDCodec::decode(d.internal_guid());
        return VolumeKey::diskImage(*host, d.relative_path(), guid ? *guid : Uuid{});
    }
    if (!b.network_url().empty()) {
        auto canonical = CanonicalShareURL::of(b.network_url());
        if (!canonical) return std::nullopt;
        return VolumeKey::networkShare(*canonical);
    }
    const auto mapType = partitionMapTypeNamed(b.partition_map_type());
    const auto volume = uuidOf(b.volume_uuid());
    if (mapType == PartitionMapType::mbr && volume) return VolumeKey::mbrSlice(*volume);
    if (mapType == PartitionMapType::apm && volume) return VolumeKey::apmSlice(*volume);
    if (auto guid = uuidOf(b.partition_guid()); guid && mapType != PartitionMapType::wholeDisk) {
        return VolumeKey::gptPartitionGUID(*guid);
    }
    if (volume && mapType == PartitionMapType::wholeDisk) {
        // A whole-disk APFS container is keyed by its container UUID, kept in `volume_uuid`.
        if (filesystemFamilyFromWireToken(b.filesystem_family()) == FilesystemFamily::apfsContainer) {
            return VolumeKey::wholeDiskAPFSContainer(*volume);
        }
        return VolumeKey::wholeDiskVolume(*volume);
    }
    return std::nullopt;
}

std::optional<VolumeRef> TileBinding::ref(const Binding& b) {
    auto k = key(b);
    if (!k) return std::nullopt;
    VolumeRef ref;
    ref.key = *k;
    switch (b.target_kind()) {
        case Binding::TARGET_KIND_APFS_VOLUME_GROUP: ref.target = VolumeTarget::apfsVolumeGroup(); break;
        case Binding::TARGET_KIND_APFS_VOLUME_BY_ROLE:
            ref.target = VolumeTarget::apfsVolumeByRole(APFSVolumeRole::named(b.target_role()));
            break;
        default: ref.target = VolumeTarget::wholeFilesystem(); break;
    }
    ref.invariants.partitionSizeBytes = b.partition_size_bytes();
    auto mapType = partitionMapTypeNamed(b.partition_map_type());
    if (!mapType) {
        mapType = k->kind() == VolumeKey::Kind::networkShare ? PartitionMapType::network
                  : k->kind() == VolumeKey::Kind::diskImage  ? PartitionMapType::diskImage
                  : k->kind() == VolumeKey::Kind::gptPartitionGUID ? PartitionMapType::gpt
                                                                   : PartitionMapType::unknown;
    }
    ref.invariants.partitionMapType = *mapType;
    ref.invariants.filesystemFamily = filesystemFamilyFromWireToken(b.filesystem_family());
    if (!b.hardware_serial().empty()) ref.invariants.hardwareSerial = HardwareSerial{b.hardware_serial()};
    ref.displayName = b.display_name();
    if (!b.subpath().empty()) ref.subpath = b.subpath();
    return ref;
}

bool TileBinding::sameIdentity(const Binding& a, const Binding& b) {
    auto ka = key(a);
    auto kb = key(b);
    if (ka || kb) return ka == kb;
    return !a.bsd_device_hint().empty() && a.bsd_device_hint() == b.bsd_device_hint();
}

void TileBinding::fill(Binding& binding, const VolumeRef& ref) {
    const auto& key = ref.key;
    switch (key.kind()) {
        case VolumeKey::Kind::gptPartitionGUID:
            binding.set_partition_guid(UUIDCodec::encode(std::get<VolumeKey::GPTPartitionGUID>(key.value).guid));
            break;
        case VolumeKey::Kind::wholeDiskAPFSContainer:
            binding.clear_partition_guid();
            binding.set_volume_uuid(
                UUIDCodec::encode(std::get<VolumeKey::WholeDiskAPFSContainer>(key.value).containerUUID));
            break;
        case VolumeKey::Kind::wholeDiskVolume:
            binding.clear_partition_guid();
            binding.set_volume_uuid(UUIDCodec::encode(std::get<VolumeKey::WholeDiskVolume>(key.value).volumeUUID));
            break;
        case VolumeKey::Kind::mbrSlice:
            binding.clear_partition_guid();
            binding.set_volume_uuid(UUIDCodec::encode(std::get<VolumeKey::MBRSlice>(key.value).volumeUUID));
            break;
        case VolumeKey::Kind::apmSlice:
            binding.clear_partition_guid();
            binding.set_volume_uuid(UUIDCodec::encode(std::get<VolumeKey::APMSlice>(key.value).volumeUUID));
            break;
        case VolumeKey::Kind::diskImage: {
            const auto& image = std::get<VolumeKey::DiskImage>(key.value);
            auto* d = binding.mutable_disk_image();
            if (image.host.kind() == DiskImageHost::Kind::networkShare) {
                d->set_host_share_url(std::get<DiskImageHost::NetworkShare>(image.host.value).url);
            } else {
                d->set_host_volume_uuid(
                    UUIDCodec::encode(std::get<DiskImageHost::LocalVolume>(image.host.value).volumeUUID));
            }
            d->set_relative_path(image.relativePath);
            if (!image.internalGUID.isNil()) d->set_internal_guid(UUIDCodec::encode(image.internalGUID));
            break;
        }
        case VolumeKey::Kind::networkShare:
            binding.set_network_url(std::get<VolumeKey::NetworkShare>(key.value).url);
            break;
    }
    binding.set_partition_size_bytes(ref.invariants.partitionSizeBytes);
    binding.set_partition_map_type(std::string(caseName(ref.invariants.partitionMapType)));
    binding.set_filesystem_family(std::string(wireToken(ref.invariants.filesystemFamily)));
    if (ref.invariants.hardwareSerial) {
        binding.set_hardware_serial(ref.invariants.hardwareSerial->value);
    } else {
        binding.clear_hardware_serial();
    }
    if (!ref.displayName.empty()) binding.set_display_name(ref.displayName);
}

ql4::transport::v1::BindingState TileBinding::state(const Resolution& resolution) {
    wire::BindingState state;
    switch (resolution.kind()) {
        case Resolution::Kind::ok: state.set_kind(wire::BindingState::KIND_OK); break;
        case Resolution::Kind::suspicious:
            state.set_kind(wire::BindingState::KIND_SUSPICIOUS);
            for (const auto& m : resolution.mismatches()) {
                auto* out = state.add_mismatches();
                out->set_field(m.field);
                out->set_expected(m.expected);
                out->set_actual(m.actual);
            }
            break;
        case Resolution::Kind::unresolved:
            state.set_kind(wire::BindingState::KIND_UNRESOLVED);
            state.set_unresolved_reason(wireReason(*resolution.reason()));
            break;
    }
    return state;
}

std::string TileBinding::label(const Binding& binding) {
    if (!binding.display_name().empty()) return binding.display_name();
    if (!binding.bsd_device_hint().empty()) return binding.bsd_device_hint();
    if (!binding.network_url().empty()) return binding.network_url();
    return "<unnamed>";
}

std::optional<std::string> TileBinding::mountPointOf(const CurrentVolumeState& state) {
    if (state.standaloneVolume) return state.standaloneVolume->mountPoint;
    if (!state.containerState) return std::nullopt;
    const auto& volumes = state.containerState->allVolumes;
    for (const auto& volume : volumes) {
        if (volume.role == APFSVolumeRole::data() && volume.mountPoint) return volume.mountPoint;
    }
    for (const auto& volume : volumes) {
        if (volume.mountPoint) return volume.mountPoint;
    }
    return std::nullopt;
}

std::optional<std::string> TileBinding::folderOn(const std::string& mount, const std::string& subpath) {
    namespace fs = std::filesystem;
    if (subpath.empty()) return mount;
    const auto relative = fs::path(subpath).relative_path().lexically_normal();
    if (relative.empty() || *relative.begin() == "..") return std::nullopt;
    auto composed = (fs::path(mount) / relative).lexically_normal().string();
    while (composed.size() > 1 && composed.back() == '/') composed.pop_back();
    return composed;
}

}  // namespace ql
