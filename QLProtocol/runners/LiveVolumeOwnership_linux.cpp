#include "QLProtocol/runners/LiveVolumeOwnership.h"

#include <sys/statfs.h>

#include <fmt/format.h>

#include <cerrno>
#include <cstring>

namespace ql {

namespace {

// Filesystems that store no owner for a file.
bool keepsNoOwners(long type) {
    switch (static_cast<unsigned long>(type)) {
        case 0x4d44UL:      // msdos / vfat
        case 0x2011BAB0UL:  // exfat
        case 0x5346544eUL:  // ntfs (in-kernel ntfs3 reports its own magic; owners are synthesised)
        case 0x65735546UL:  // fuseblk (ntfs-3g, exfat-fuse)
            return true;
        default: return false;
    }
}

}  // namespace

asio::awaitable<std::optional<bool>> LiveVolumeOwnership::ownersEnabled(std::string mountPath) {
    struct statfs info {};
    if (::statfs(mountPath.c_str(), &info) != 0) co_return std::nullopt;
    co_return !keepsNoOwners(static_cast<long>(info.f_type));
}

asio::awaitable<tl::expected<void, std::string>> LiveVolumeOwnership::setOwnersEnabled(std::string mountPath,
                                                                                      bool enabled) {
    struct statfs info {};
    if (::statfs(mountPath.c_str(), &info) != 0) {
        co_return tl::unexpected(fmt::format("couldn't examine {}: {}", mountPath, std::strerror(errno)));
    }
    const bool ownerless = keepsNoOwners(static_cast<long>(info.f_type));
    if (enabled && ownerless) {
        co_return tl::unexpected(fmt::format("the filesystem at {} keeps no file owners", mountPath));
    }
    if (!enabled && !ownerless) {
        co_return tl::unexpected(fmt::format("the filesystem at {} always keeps file owners", mountPath));
    }
    co_return tl::expected<void, std::string>{};
}

}  // namespace ql
