#include "QLModel/VolumeResolverEnvironment.h"

#include "QLModel/LinuxBlockDeviceProbe.h"
#include "QLModel/LiveDiskImageBackingProbe.h"

#include <libmount/libmount.h>

#include <filesystem>
#include <fstream>
#include <memory>

namespace ql {
std::vector<NetworkMountEntry> VolumeResolverEnvironment::liveNetworkMounts() {
    std::vector<NetworkMountEntry> mounts;
    std::unique_ptr<libmnt_table, decltype(&mnt_unref_table)> table(mnt_new_table_from_file("/proc/self/mountinfo"),
                                                                    &mnt_unref_table);
    if (!table) return mounts;
    std::unique_ptr<libmnt_iter, decltype(&mnt_free_iter)> iter(mnt_new_iter(MNT_ITER_FORWARD), &mnt_free_iter);
    libmnt_fs* fs = nullptr;
    while (mnt_table_next_fs(table.get(), iter.get(), &fs) == 0) {
        const char* type = mnt_fs_get_fstype(fs);
        const char* source = mnt_fs_get_source(fs);
        const char* target = mnt_fs_get_target(fs);
        if (!type || !source || !target) continue;
        if (auto url = shareURLFromMountSource(type, source)) mounts.push_back({target, *url, std::nullopt});
    }
    return mounts;
}

std::vector<AttachedImageEntry> VolumeResolverEnvironment::liveAttachedImages() {
    std::vector<AttachedImageEntry> images;
    LinuxBlockDeviceProbe blockDevices;
    for (const auto& disk : blockDevices.wholeDisks()) {
        std::ifstream in(std::filesystem::path(blockDevices.options().sysBlock) / disk / "loop" / "backing_file");
        std::string path;
        if (!in || !std::getline(in, path) || path.empty()) continue;
        AttachedImageEntry entry;
        entry.imagePath = path;
        entry.devices.push_back(disk);
        for (auto& partition : blockDevices.partitionsOf(disk)) entry.devices.push_back(std::move(partition));
        // The image's own identity: the GUID of the partition table written inside it.
        if (auto table = blockDevices.readPartitionTable(disk);
            table && *table && (*table)->type == "gpt" && (*table)->id) {
            if (auto guid = Uuid::parse(*(*table)->id)) entry.internalGUID = *guid;
        }
        images.push_back(std::move(entry));
    }
    return images;
}

std::shared_ptr<DiskImageBackingProbe> VolumeResolverEnvironment::liveImageBackingProbe() {
    return std::make_shared<LiveDiskImageBackingProbe>();
}

}  // namespace ql
