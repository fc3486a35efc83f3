#include "app/core/JobVolumeRef.h"

#include "QLModel/APFSVolumeRole.h"
#include "QLModel/FilesystemFamily.h"
#include "QLModel/PartitionMapType.h"
#include "QLProtocol/transport/VolumeBridge.h"

#include <algorithm>
#include <cctype>

namespace ql {

namespace wire = ql4::transport::v1;

namespace {

std::optional<PartitionMapType> mapTypeNamed(std::string word) {
    if (auto exact = partitionMapTypeNamed(word)) return exact;
    std::transform(word.begin(), word.end(), word.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    for (auto type : {PartitionMapType::gpt, PartitionMapType::mbr, PartitionMapType::apm, PartitionMapType::wholeDisk,
                      PartitionMapType::network, PartitionMapType::diskImage, PartitionMapType::unknown}) {
        std::string name(caseName(type));
        std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        if (name == word) return type;
    }
    return std::nullopt;
}

}  // namespace

tl::expected<wire::VolumeRef, std::string> JobVolumeRef::fromBinding(const wire::VolumeBinding& b) {
    wire::VolumeRef ref;
    ref.set_display_name(b.display_name());
    ref.set_subpath(b.subpath());
    auto mapType = mapTypeNamed(b.partition_map_type());
    auto* key = ref.mutable_key();
    if (b.has_disk_image()) {
        auto* image = key->mutable_disk_image();
        const auto& d = b.disk_image();
        if (d.host_case() == wire::DiskImageBinding::kHostShareUrl) image->set_host_share_url(d.host_share_url());
        if (d.host_case() == wire::DiskImageBinding::kHostVolumeUuid) image->set_host_volume_uuid(d.host_volume_uuid());
        image->set_relative_path(d.relative_path());
        image->set_internal_guid(d.internal_guid());
        if (!mapType) mapType = PartitionMapType::diskImage;
    } else if (!b.network_url().empty()) {
        key->mutable_network_share()->set_url(b.network_url());
        if (!mapType) mapType = PartitionMapType::network;
    } else if (mapType == PartitionMapType::mbr && b.volume_uuid().size() == 16) {
        key->mutable_mbr_slice()->set_volume_uuid(b.volume_uuid());
    } else if (mapType == PartitionMapType::apm && b.volume_uuid().size() == 16) {
        key->mutable_apm_slice()->set_volume_uuid(b.volume_uuid());
    } else if (b.partition_guid().size() == 16 && mapType != PartitionMapType::wholeDisk) {
        key->set_gpt_partition_guid(b.partition_guid());
    } else if (b.volume_uuid().size() == 16) {
        key->set_whole_disk_volume_uuid(b.volume_uuid());
    } else {
        return tl::unexpected("the job’s volume “" + b.display_name() +
                              "” has not been identified by the copy server yet (no partition or volume UUID)");
    }
    if (!mapType) {
        return tl::unexpected("the job’s volume “" + b.display_name() +
                              "” has no recorded partition map; the copy server has not completed its binding");
    }

    auto* target = ref.mutable_target();
    switch (b.target_kind()) {
        case wire::VolumeBinding::TARGET_KIND_APFS_VOLUME_GROUP: target->set_kind(wire::VolumeTarget::APFS_VOLUME_GROUP); break;
        case wire::VolumeBinding::TARGET_KIND_APFS_VOLUME_BY_ROLE: {
            target->set_kind(wire::VolumeTarget::APFS_VOLUME_BY_ROLE);
            *target->mutable_role() = VolumeBridge::toWire(APFSVolumeRole::named(b.target_role()));
            break;
        }
        default: target->set_kind(wire::VolumeTarget::WHOLE_FILESYSTEM); break;
    }

    auto* invariants = ref.mutable_invariants();
    invariants->set_partition_size_bytes(b.partition_size_bytes());
    invariants->set_partition_map_type(VolumeBridge::toWire(*mapType));
    invariants->set_filesystem_family(VolumeBridge::toWire(filesystemFamilyFromWireToken(b.filesystem_family())));
    invariants->set_hardware_serial(b.hardware_serial());
    return ref;
}

}  // namespace ql
