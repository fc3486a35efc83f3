#pragma once

#include "QLProtocol/runners/VolumeOwnership.h"
#include "QLSupport/ShellRunner.h"

namespace ql {

// The platform's owner setting.
//
// Linux: owners are a property of the filesystem, not a mount setting. POSIX filesystems
// (ext4, btrfs, xfs, tmpfs …) always honour them, so "enable" succeeds without changing
// anything; filesystems that keep no owners (FAT, exFAT, NTFS through FUSE) report owners off
// and cannot enable them — the file-copy runner then maps written files to the console user.
// macOS: the disk tool's per-volume owners setting ("diskutil info" → GlobalPermissionsEnabled;
// "diskutil enableOwnership" / "disableOwnership").
class LiveVolumeOwnership final : public VolumeOwnership {
public:
    explicit LiveVolumeOwnership(ShellRunner& shell) : shell_(shell) {}

    asio::awaitable<std::optional<bool>> ownersEnabled(std::string mountPath) override;
    asio::awaitable<tl::expected<void, std::string>> setOwnersEnabled(std::string mountPath, bool enabled) override;

private:
    ShellRunner& shell_;
};

}  // namespace ql
