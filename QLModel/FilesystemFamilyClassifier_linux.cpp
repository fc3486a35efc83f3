#include "QLModel/FilesystemFamilyClassifier.h"

#include <libmount/libmount.h>
#include <sys/vfs.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace ql {
namespace {

// Linux names filesystems differently from the vocabulary the family rule speaks; translate the
// ones the rule distinguishes.
std::string platformTypeName(std::string_view kernelName) {
    if (kernelName == "vfat" || kernelName == "msdos" || kernelName == "fat") return "msdos";
    if (kernelName == "hfsplus") return "hfs";
    if (kernelName == "ntfs3") return "ntfs";
    return std::string(kernelName);
}

}  // namespace

tl::expected<std::string, int> FilesystemFamilyClassifier::liveTypeName(const std::string& mountPoint) {
    struct statfs stats {};
    if (::statfs(mountPoint.c_str(), &stats) != 0) return tl::unexpected(errno);

    std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(mountPoint.c_str(), nullptr), &std::free);
    if (!resolved) return tl::unexpected(errno);

    std::unique_ptr<libmnt_table, decltype(&mnt_unref_table)> table(mnt_new_table_from_file("/proc/self/mountinfo"),
                                                                    &mnt_unref_table);
    if (!table) return tl::unexpected(EIO);
    libmnt_fs* fs = mnt_table_find_mountpoint(table.get(), resolved.get(), MNT_ITER_BACKWARD);
    if (!fs) return tl::unexpected(ENOENT);
    const char* type = mnt_fs_get_fstype(fs);
    if (!type) return tl::unexpected(ENOENT);

    // Held the way the platform's statistics call holds it: a NUL-terminated name in 16 bytes.
    std::string name = platformTypeName(type);
    char buffer[16] = {};
    std::memcpy(buffer, name.data(), std::min(name.size(), sizeof buffer - 1));
    return decodeTypeName(buffer, sizeof buffer);
}

}  // namespace ql
