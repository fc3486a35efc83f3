#pragma once

#include "QLModel/VolumeProbe.h"
#include "QLSupport/BlockingPool.h"

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ql {

// The live volume probe on Linux. It produces the same records as the disk tool does on macOS,
// from the kernel and the disks themselves, never from udev (containers and CI have no udevd):
//
//   - disks and partitions from sysfs: a whole disk is a block device without a "partition"
//     attribute, its partitions are the entries that have one; sizes are sysfs sizes;
//   - partition tables and filesystems from libblkid's low-level probing: a partition's GUID is
//     the unique GUID of its GPT entry, its content the entry's type (a type GUID on GPT disks,
//     a content name on MBR and APM disks), a volume UUID the filesystem's UUID;
//   - mount points from /proc/self/mountinfo, space figures from statvfs;
//   - the whole-disk registry identifier from the disk's sequence number (sysfs "diskseq").
//
// Filesystems whose identifier is shorter than a UUID (FAT and exFAT serials, NTFS serials) get a
// stable UUID derived from the filesystem type and that identifier, so that MBR slices holding
// them can be keyed like on macOS. Linux has no APFS containers: that listing is empty.
//
// A device whose node can't be opened (missing, unreadable, or not the device sysfs names) is
// still listed, with only what sysfs knows, and describing it fails with `deviceUnreadable`: a
// scan over it is incomplete, never a reason to call a volume missing.
class LinuxBlockDeviceProbe final : public VolumeProbe {
public:
    struct Options {
        std::string sysClassBlock = "/sys/class/block";
        std::string sysBlock = "/sys/block";
        std::string devDirectory = "/dev";
        std::string mountInfo = "/proc/self/mountinfo";
        // The device manager's record of each device ("b<major>:<minor>" files).
        std::string udevData = "/run/udev/data";
    };

    // With a pool, the blocking reads run there; without one, on the caller's thread.
    explicit LinuxBlockDeviceProbe(BlockingPool* pool = nullptr) : LinuxBlockDeviceProbe(pool, Options{}) {}
    LinuxBlockDeviceProbe(BlockingPool* pool, Options options) : pool_(pool), options_(std::move(options)) {}

    asio::awaitable<ListResult> listDisks() override;
    asio::awaitable<InfoResult> describe(std::string device) override;
    asio::awaitable<ContainersResult> listAPFSContainers() override;

    // The same, on the calling thread.
    ListResult listDisksNow() const;
    InfoResult describeNow(const std::string& device) const;

    // What libblkid reads from one device.
    struct FilesystemFacts {
        std::string type;  // "ext4", "vfat", "crypto_LUKS", ...
        std::optional<std::string> uuid;
        std::optional<std::string> label;
        std::optional<std::string> version;
    };
    struct TableEntry {
        int number = 0;
        std::optional<std::string> uuid;  // the entry's unique GUID (GPT)
        std::string type;                 // GPT: type GUID; MBR: "0x83"; APM: type name
    };
    struct PartitionTable {
        std::string type;               // "gpt", "dos", "mac", ...
        std::optional<std::string> id;  // the disk's GUID (GPT) or identifier
        std::vector<TableEntry> entries;
    };

    // Building blocks shared with the other Linux probes. `device` is a name such as "loop0p1".
    // Whether sysfs knows the device, and whether it is a partition.
    bool exists(const std::string& device) const;
    bool isPartition(const std::string& device) const;
    // The whole disk a partition belongs to (the device itself for a whole disk).
    std::string wholeDiskOf(const std::string& device) const;
    // The partitions of a whole disk, ordered by partition number.
    std::vector<std::string> partitionsOf(const std::string& disk) const;
    std::optional<dev_t> deviceNumber(const std::string& device) const;
    std::optional<std::uint64_t> diskSequence(const std::string& disk) const;
    // The device node, when it exists and is this device; otherwise why not.
    tl::expected<std::string, std::string> deviceNode(const std::string& device) const;
    // The filesystem on a device, read by libblkid. A device this process may not open (a server
    // running as a user, or a sandbox that hides the raw disk) is known instead by the device
    // manager's record of it, or, when it is mounted with ext2/3/4 or btrfs, by the filesystem id
    // the kernel derives from the superblock's UUID ("fsid:" + 16 hex digits, a stable identity
    // that is not the UUID itself).
    tl::expected<std::optional<FilesystemFacts>, std::string> readFilesystem(const std::string& device) const;
    // The same, without opening the device; nullopt when neither route knows the device.
    std::optional<FilesystemFacts> filesystemWithoutOpening(const std::string& device) const;
    // A disk this process may not open reads as having no table it can know.
    tl::expected<std::optional<PartitionTable>, std::string> readPartitionTable(const std::string& disk) const;
    // The whole disks in natural order ("loop2" before "loop10"), empty ones left out.
    std::vector<std::string> wholeDisks() const;

    // The UUID a filesystem is keyed by: its own when it is one, else one derived from the type
    // and the identifier.
    static std::optional<Uuid> volumeUUIDOf(const FilesystemFacts& facts);
    // Content names in the disk tool's vocabulary.
    static std::string schemeName(const std::string& tableType);
    static std::string mbrContentName(const std::string& type);
    static std::optional<std::string> filesystemContentName(const FilesystemFacts& facts);
    static std::optional<std::string> filesystemPersonality(const FilesystemFacts& facts);

    const Options& options() const { return options_; }

private:
    template <typename F>
    auto offload(F work) -> asio::awaitable<std::invoke_result_t<F&>>;

    std::optional<std::string> attribute(const std::string& device, const std::string& name) const;

    BlockingPool* pool_;
    Options options_;
};

}  // namespace ql
