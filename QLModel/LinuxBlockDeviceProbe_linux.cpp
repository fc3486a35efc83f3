#include "QLModel/LinuxBlockDeviceProbe.h"

#include <blkid/blkid.h>
#include <libmount/libmount.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

namespace ql {
namespace fs = std::filesystem;
namespace {

std::string trimmed(std::string text) {
    auto notSpace = [](unsigned char c) { return !std::isspace(c) && c != '\0'; };
    text.erase(text.begin(), std::find_if(text.begin(), text.end(), notSpace));
    text.erase(std::find_if(text.rbegin(), text.rend(), notSpace).base(), text.end());
    return text;
}

std::optional<std::string> readText(const fs::path& path) {
    std::ifstream in(path);
    if (!in) return std::nullopt;
    std::stringstream buffer;
    buffer << in.rdbuf();
    return trimmed(buffer.str());
}

std::string uppercased(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return text;
}

std::string deviceName(std::string_view device) {
    if (device.substr(0, 5) == "/dev/") device.remove_prefix(5);
    return std::string(device);
}

// "loop2" before "loop10": digit runs compare by value.
bool naturalLess(const std::string& a, const std::string& b) {
    std::size_t i = 0, j = 0;
    while (i < a.size() && j < b.size()) {
        if (std::isdigit(static_cast<unsigned char>(a[i])) && std::isdigit(static_cast<unsigned char>(b[j]))) {
            std::size_t i2 = i, j2 = j;
            while (i2 < a.size() && std::isdigit(static_cast<unsigned char>(a[i2]))) ++i2;
            while (j2 < b.size() && std::isdigit(static_cast<unsigned char>(b[j2]))) ++j2;
            auto x = a.substr(i, i2 - i), y = b.substr(j, j2 - j);
            x.erase(0, std::min(x.find_first_not_of('0'), x.size()));
            y.erase(0, std::min(y.find_first_not_of('0'), y.size()));
            if (x.size() != y.size()) return x.size() < y.size();
            if (x != y) return x < y;
            i = i2;
            j = j2;
        } else {
            if (a[i] != b[j]) return a[i] < b[j];
            ++i;
            ++j;
        }
    }
    return a.size() - i < b.size() - j;
}

struct ProbeDeleter {
    void operator()(blkid_probe probe) const { blkid_free_probe(probe); }
};
using ProbeHandle = std::unique_ptr<std::remove_pointer_t<blkid_probe>, ProbeDeleter>;

std::optional<std::string> lookup(blkid_probe probe, const char* name) {
    const char* value = nullptr;
    std::size_t length = 0;
    if (blkid_probe_lookup_value(probe, name, &value, &length) != 0 || !value) return std::nullopt;
    std::string text(value, strnlen(value, length));
    if (text.empty()) return std::nullopt;
    return text;
}

std::uint64_t fnv1a(std::string_view text, std::uint64_t seed) {
    std::uint64_t hash = seed;
    for (unsigned char c : text) {
        hash ^= c;
        hash *= 0x100000001b3ULL;
    }
    return hash;
}

}  // namespace

template <typename F>
auto LinuxBlockDeviceProbe::offload(F work) -> asio::awaitable<std::invoke_result_t<F&>> {
    if (pool_) co_return co_await pool_->run(std::move(work));
    co_return work();
}

asio::awaitable<VolumeProbe::ListResult> LinuxBlockDeviceProbe::listDisks() {
    return offload([this] { return listDisksNow(); });
}

asio::awaitable<VolumeProbe::InfoResult> LinuxBlockDeviceProbe::describe(std::string device) {
    return offload([this, device = std::move(device)] { return describeNow(device); });
}

asio::awaitable<VolumeProbe::ContainersResult> LinuxBlockDeviceProbe::listAPFSContainers() {
    co_return std::vector<ProbeAPFSContainerDetail>{};
}

std::optional<std::string> LinuxBlockDeviceProbe::attribute(const std::string& device, const std::string& name) const {
    return readText(fs::path(options_.sysClassBlock) / device / name);
}

bool LinuxBlockDeviceProbe::exists(const std::string& device) const {
    std::error_code error;
    return !device.empty() && device.find('/') == std::string::npos &&
           fs::is_directory(fs::path(options_.sysClassBlock) / device, error);
}

bool LinuxBlockDeviceProbe::isPartition(const std::string& device) const {
    std::error_code error;
    return fs::exists(fs::path(options_.sysClassBlock) / device / "partition", error);
}

std::string LinuxBlockDeviceProbe::wholeDiskOf(const std::string& device) const {
    if (!isPartition(device)) return device;
    std::error_code error;
    auto resolved = fs::canonical(fs::path(options_.sysClassBlock) / device, error);
    if (error) return device;
    return resolved.parent_path().filename().string();
}

std::vector<std::string> LinuxBlockDeviceProbe::partitionsOf(const std::string& disk) const {
    std::vector<std::pair<long, std::string>> found;
    std::error_code error;
    for (fs::directory_iterator it(fs::path(options_.sysBlock) / disk, error), end; !error && it != end;
         it.increment(error)) {
        auto number = readText(it->path() / "partition");
        if (!number) continue;
        try {
            found.emplace_back(std::stol(*number), it->path().filename().string());
        } catch (const std::exception&) {
            continue;
        }
    }
    std::sort(found.begin(), found.end());
    std::vector<std::string> names;
    for (auto& entry : found) names.push_back(std::move(entry.second));
    return names;
}

std::optional<dev_t> LinuxBlockDeviceProbe::deviceNumber(const std::string& device) const {
    auto text = attribute(device, "dev");
    if (!text) return std::nullopt;
    unsigned major = 0, minor = 0;
    if (std::sscanf(text->c_str(), "%u:%u", &major, &minor) != 2) return std::nullopt;
    return makedev(major, minor);
}

std::optional<std::uint64_t> LinuxBlockDeviceProbe::diskSequence(const std::string& disk) const {
    auto text = attribute(disk, "diskseq");
    if (!text || text->empty()) return std::nullopt;
    try {
        return std::stoull(*text);
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

tl::expected<std::string, std::string> LinuxBlockDeviceProbe::deviceNode(const std::string& device) const {
    auto node = (fs::path(options_.devDirectory) / device).string();
    auto number = deviceNumber(device);
    if (!number) return tl::unexpected(fmt::format("sysfs gives no device number for {}", device));
    struct stat info {};
    if (::stat(node.c_str(), &info) != 0) {
        return tl::unexpected(fmt::format("{}: {}", node, std::strerror(errno)));
    }
    if (!S_ISBLK(info.st_mode) || info.st_rdev != *number) {
        return tl::unexpected(fmt::format("{} is not the block device {}:{}", node, major(*number), minor(*number)));
    }
    return node;
}

tl::expected<std::optional<LinuxBlockDeviceProbe::FilesystemFacts>, std::string> LinuxBlockDeviceProbe::readFilesystem(
    const std::string& device) const {
    auto node = deviceNode(device);
    if (!node) return tl::unexpected(node.error());
    errno = 0;
    ProbeHandle probe(blkid_new_probe_from_filename(node->c_str()));
    if (!probe) {
        const int error = errno ? errno : EIO;
        if (error == EACCES || error == EPERM) {
            if (auto known = filesystemWithoutOpening(device)) return std::optional<FilesystemFacts>(std::move(*known));
        }
        return tl::unexpected(fmt::format("{}: {}", *node, std::strerror(error)));
    }
    blkid_probe_enable_partitions(probe.get(), 0);
    blkid_probe_enable_superblocks(probe.get(), 1);
    blkid_probe_set_superblocks_flags(
        probe.get(), BLKID_SUBLKS_LABEL | BLKID_SUBLKS_UUID | BLKID_SUBLKS_TYPE | BLKID_SUBLKS_VERSION);
    int rc = blkid_do_safeprobe(probe.get());
    if (rc == -1) return tl::unexpected(fmt::format("{}: the superblocks could not be read", *node));
    if (rc != 0) return std::optional<FilesystemFacts>();  // nothing found, or ambivalent signatures
    auto type = lookup(probe.get(), "TYPE");
    if (!type) return std::optional<FilesystemFacts>();
    FilesystemFacts facts;
    facts.type = *type;
    facts.uuid = lookup(probe.get(), "UUID");
    facts.label = lookup(probe.get(), "LABEL");
    facts.version = lookup(probe.get(), "VERSION");
    return std::optional<FilesystemFacts>(std::move(facts));
}

std::optional<LinuxBlockDeviceProbe::FilesystemFacts> LinuxBlockDeviceProbe::filesystemWithoutOpening(
    const std::string& device) const {
    auto number = deviceNumber(device);
    if (!number) return std::nullopt;

    // The device manager's record: "E:ID_FS_TYPE=ext4" and the like.
    std::ifstream record(fs::path(options_.udevData) / fmt::format("b{}:{}", major(*number), minor(*number)));
    FilesystemFacts facts;
    for (std::string line; std::getline(record, line);) {
        auto value = [&](std::string_view key) -> std::optional<std::string> {
            if (!line.starts_with(key)) return std::nullopt;
            return line.substr(key.size());
        };
        if (auto v = value("E:ID_FS_TYPE=")) facts.type = *v;
        if (auto v = value("E:ID_FS_UUID=")) facts.uuid = *v;
        if (auto v = value("E:ID_FS_LABEL=")) facts.label = *v;
        if (auto v = value("E:ID_FS_VERSION=")) facts.version = *v;
    }
    if (!facts.type.empty()) return facts;

    // The kernel's filesystem id of the mounted filesystem. Only where that id comes from the
    // superblock's UUID (so it names this filesystem on any machine, after any reboot).
    std::unique_ptr<libmnt_table, decltype(&mnt_unref_table)> mounts(mnt_new_table_from_file(options_.mountInfo.c_str()),
                                                                      &mnt_unref_table);
    if (!mounts) return std::nullopt;
    libmnt_fs* mounted = mnt_table_find_devno(mounts.get(), *number, MNT_ITER_FORWARD);
    if (mounted == nullptr) return std::nullopt;
    const char* type = mnt_fs_get_fstype(mounted);
    const char* target = mnt_fs_get_target(mounted);
    if (type == nullptr || target == nullptr) return std::nullopt;
    const std::string fsType = type;
    if (fsType != "ext2" && fsType != "ext3" && fsType != "ext4" && fsType != "btrfs") return std::nullopt;
    struct statfs stats {};
    if (::statfs(target, &stats) != 0) return std::nullopt;
    std::uint64_t id = 0;
    static_assert(sizeof(stats.f_fsid) == sizeof(id));
    std::memcpy(&id, &stats.f_fsid, sizeof(id));
    if (id == 0) return std::nullopt;
    facts.type = fsType;
    facts.uuid = fmt::format("fsid:{:016x}", id);
    return facts;
}

tl::expected<std::optional<LinuxBlockDeviceProbe::PartitionTable>, std::string>
LinuxBlockDeviceProbe::readPartitionTable(const std::string& disk) const {
    auto node = deviceNode(disk);
    if (!node) return tl::unexpected(node.error());
    errno = 0;
    ProbeHandle probe(blkid_new_probe_from_filename(node->c_str()));
    if (!probe) {
        const int error = errno ? errno : EIO;
        if (error == EACCES || error == EPERM) return std::optional<PartitionTable>();
        return tl::unexpected(fmt::format("{}: {}", *node, std::strerror(error)));
    }
    blkid_probe_enable_superblocks(probe.get(), 0);
    blkid_probe_enable_partitions(probe.get(), 1);
    blkid_probe_set_partitions_flags(probe.get(), BLKID_PARTS_ENTRY_DETAILS);
    blkid_partlist list = blkid_probe_get_partitions(probe.get());
    if (!list) return std::optional<PartitionTable>();
    blkid_parttable root = blkid_partlist_get_table(list);
    if (!root) return std::optional<PartitionTable>();
    PartitionTable table;
    table.type = blkid_parttable_get_type(root) ? blkid_parttable_get_type(root) : "";
    if (const char* id = blkid_parttable_get_id(root); id && *id) table.id = id;
    int count = blkid_partlist_numof_partitions(list);
    for (int i = 0; i < count; ++i) {
        blkid_partition partition = blkid_partlist_get_partition(list, i);
        if (!partition) continue;
        TableEntry entry;
        entry.number = blkid_partition_get_partno(partition);
        if (const char* uuid = blkid_partition_get_uuid(partition); uuid && *uuid) entry.uuid = uuid;
        if (table.type == "dos") {
            entry.type = fmt::format("0x{:02x}", blkid_partition_get_type(partition));
        } else if (const char* type = blkid_partition_get_type_string(partition); type && *type) {
            entry.type = type;
        } else {
            entry.type = fmt::format("0x{:02x}", blkid_partition_get_type(partition));
        }
        table.entries.push_back(std::move(entry));
    }
    return std::optional<PartitionTable>(std::move(table));
}

std::vector<std::string> LinuxBlockDeviceProbe::wholeDisks() const {
    std::vector<std::string> disks;
    std::error_code error;
    for (fs::directory_iterator it(options_.sysBlock, error), end; !error && it != end; it.increment(error)) {
        auto name = it->path().filename().string();
        auto size = attribute(name, "size");
        if (!size || *size == "0" || size->empty()) continue;
        disks.push_back(std::move(name));
    }
    std::sort(disks.begin(), disks.end(), naturalLess);
    return disks;
}

std::optional<Uuid> LinuxBlockDeviceProbe::volumeUUIDOf(const FilesystemFacts& facts) {
    if (!facts.uuid) return std::nullopt;
    if (auto parsed = Uuid::parse(*facts.uuid)) return *parsed;
    // A short serial: derive a UUID (version 8, variant 10) from the type and the serial.
    auto name = facts.type + ":" + uppercased(*facts.uuid);
    Uuid::Bytes bytes{};
    auto high = fnv1a(name, 0xcbf29ce484222325ULL);
    auto low = fnv1a(name, 0x84222325cbf29ce4ULL ^ high);
    for (int i = 0; i < 8; ++i) {
        bytes[i] = static_cast<std::uint8_t>(high >> (56 - 8 * i));
        bytes[8 + i] = static_cast<std::uint8_t>(low >> (56 - 8 * i));
    }
    bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x80);
    bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);
    return Uuid(bytes);
}

std::string LinuxBlockDeviceProbe::schemeName(const std::string& tableType) {
    if (tableType == "gpt") return "GUID_partition_scheme";
    if (tableType == "dos") return "FDisk_partition_scheme";
    if (tableType == "mac") return "Apple_partition_scheme";
    return tableType;
}

std::string LinuxBlockDeviceProbe::mbrContentName(const std::string& type) {
    static const std::pair<const char*, const char*> names[] = {
        {"0x01", "DOS_FAT_12"},   {"0x04", "DOS_FAT_16"}, {"0x06", "DOS_FAT_16"}, {"0x07", "Windows_NTFS"},
        {"0x0b", "DOS_FAT_32"},   {"0x0c", "DOS_FAT_32"}, {"0x0e", "DOS_FAT_16"}, {"0x05", "DOS_Extended"},
        {"0x0f", "DOS_Extended"}, {"0x82", "Linux_Swap"}, {"0x83", "Linux"},      {"0x8e", "Linux_LVM"},
        {"0xaf", "Apple_HFS"},    {"0xee", "EFI_GPT"},    {"0xef", "EFI"},
    };
    for (const auto& [code, name] : names) {
        if (type == code) return name;
    }
    return type;
}

std::optional<std::string> LinuxBlockDeviceProbe::filesystemContentName(const FilesystemFacts& facts) {
    const auto& type = facts.type;
    if (type == "apfs") return "Apple_APFS";
    if (type == "hfsplus" || type == "hfs") return "Apple_HFS";
    if (type == "vfat") {
        if (facts.version == "FAT12") return "DOS_FAT_12";
        if (facts.version == "FAT16") return "DOS_FAT_16";
        return "DOS_FAT_32";
    }
    if (type == "exfat") return "Windows_exFAT";
    if (type == "ntfs") return "Windows_NTFS";
    if (type == "ext2" || type == "ext3" || type == "ext4" || type == "xfs" || type == "btrfs" || type == "f2fs") {
        return "Linux";
    }
    if (type == "swap") return "Linux_Swap";
    if (type.empty()) return std::nullopt;
    return type;
}

std::optional<std::string> LinuxBlockDeviceProbe::filesystemPersonality(const FilesystemFacts& facts) {
    const auto& type = facts.type;
    if (type == "vfat") return "MS-DOS " + facts.version.value_or("FAT32");
    if (type == "exfat") return "ExFAT";
    if (type == "ntfs") return "NTFS";
    if (type == "hfsplus") return "Mac OS Extended";
    if (type == "apfs") return "APFS";
    if (type.empty()) return std::nullopt;
    return type;
}

VolumeProbe::ListResult LinuxBlockDeviceProbe::listDisksNow() const {
    ProbeList list;
    std::error_code error;
    if (!fs::is_directory(options_.sysBlock, error)) {
        return tl::unexpected(DiskutilError::incompleteScan(options_.sysBlock + " can't be read"));
    }
    for (const auto& disk : wholeDisks()) {
        ProbeDisk out;
        out.deviceIdentifier = disk;
        auto table = readPartitionTable(disk);
        if (table && *table) {
            out.content = schemeName((*table)->type);
        } else if (table) {
            auto facts = readFilesystem(disk);
            if (facts && *facts) out.content = filesystemContentName(**facts);
        }
        for (const auto& name : partitionsOf(disk)) {
            ProbePartition partition;
            partition.deviceIdentifier = name;
            if (auto sectors = attribute(name, "size"))
                partition.size = std::strtoull(sectors->c_str(), nullptr, 10) * 512;
            auto number = attribute(name, "partition");
            if (table && *table && number) {
                for (const auto& entry : (*table)->entries) {
                    if (std::to_string(entry.number) != *number) continue;
                    if ((*table)->type == "gpt") {
                        partition.content = uppercased(entry.type);
                        if (entry.uuid) {
                            if (auto guid = Uuid::parse(*entry.uuid)) partition.diskUUID = *guid;
                        }
                    } else if ((*table)->type == "dos") {
                        partition.content = mbrContentName(entry.type);
                    } else {
                        partition.content = entry.type;
                    }
                }
            }
            if (auto facts = readFilesystem(name); facts && *facts) partition.volumeUUID = volumeUUIDOf(**facts);
            out.partitions.push_back(std::move(partition));
        }
        list.allDisksAndPartitions.push_back(std::move(out));
    }
    return list;
}

VolumeProbe::InfoResult LinuxBlockDeviceProbe::describeNow(const std::string& requested) const {
    const auto name = deviceName(requested);
    if (!exists(name)) return tl::unexpected(DiskutilError::deviceUnreadable(name, "there is no such block device"));
    ProbeInfo info;
    info.deviceIdentifier = name;
    if (auto sectors = attribute(name, "size")) info.totalSize = std::strtoull(sectors->c_str(), nullptr, 10) * 512;
    const bool partition = isPartition(name);
    const auto disk = wholeDiskOf(name);
    info.wholeDisk = !partition;
    if (partition) info.parentWholeDisk = disk;
    info.wholeDiskRegistryID = diskSequence(disk);
    if (auto rotational = readText(fs::path(options_.sysBlock) / disk / "queue" / "rotational")) {
        info.mediaType = *rotational == "1" ? "Rotational" : "Solid State";
    }

    auto facts = readFilesystem(name);
    if (!facts) return tl::unexpected(DiskutilError::deviceUnreadable(name, facts.error()));

    auto table = readPartitionTable(disk);
    if (!table) return tl::unexpected(DiskutilError::deviceUnreadable(name, table.error()));
    if (partition) {
        info.partitionMapPartition = true;
        auto number = attribute(name, "partition");
        if (*table) {
            const auto& type = (*table)->type;
            info.mbrPartition = type == "dos";
            info.apmPartition = type == "mac";
            for (const auto& entry : (*table)->entries) {
                if (!number || std::to_string(entry.number) != *number) continue;
                if (type == "gpt") {
                    info.content = uppercased(entry.type);
                    if (entry.uuid) {
                        if (auto guid = Uuid::parse(*entry.uuid)) info.diskUUID = *guid;
                    }
                } else if (type == "dos") {
                    info.content = mbrContentName(entry.type);
                } else {
                    info.content = entry.type;
                }
            }
        }
    } else if (*table) {
        info.content = schemeName((*table)->type);
    } else if (*facts) {
        info.content = filesystemContentName(**facts);
    }
    if (*facts) {
        info.volumeUUID = volumeUUIDOf(**facts);
        info.volumeName = (*facts)->label;
        info.filesystemPersonality = filesystemPersonality(**facts);
    }

    if (auto number = deviceNumber(name)) {
        std::unique_ptr<libmnt_table, decltype(&mnt_unref_table)> mounts(
            mnt_new_table_from_file(options_.mountInfo.c_str()), &mnt_unref_table);
        if (mounts) {
            if (libmnt_fs* mounted = mnt_table_find_devno(mounts.get(), *number, MNT_ITER_FORWARD)) {
                if (const char* target = mnt_fs_get_target(mounted)) info.mountPoint = target;
            }
        }
    }
    if (info.mountPoint) {
        struct statvfs space {};
        if (::statvfs(info.mountPoint->c_str(), &space) == 0) {
            info.volumeUsedSpace = static_cast<std::uint64_t>(space.f_blocks - space.f_bfree) * space.f_frsize;
            info.volumeFreeSpace = static_cast<std::uint64_t>(space.f_bavail) * space.f_frsize;
        }
    }
    return info;
}

}  // namespace ql
