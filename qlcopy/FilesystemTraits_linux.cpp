#include "qlcopy/FilesystemTraits.h"

#include <linux/magic.h>
#include <sys/vfs.h>

namespace ql {

FilesystemTraits FilesystemTraits::of(int fd) {
    FilesystemTraits t;
    struct statfs s;
    if (::fstatfs(fd, &s) != 0) {
        t.typeName = "unknown";
        return t;
    }
    switch (static_cast<unsigned long>(s.f_type)) {
        case MSDOS_SUPER_MAGIC:
            t.typeName = "msdos";
            t.timeGranularityNs = 2'000'000'000;
            break;
        case 0x2011BAB0UL:  // exFAT
            t.typeName = "exfat";
            t.timeGranularityNs = 10'000'000;
            break;
        case 0x4244UL:      // HFS
        case 0x482bUL:      // HFS+
            t.typeName = "hfs";
            t.timeGranularityNs = 1'000'000'000;
            break;
        case EXT4_SUPER_MAGIC:  // also ext2 and ext3
            t.typeName = "ext4";
            break;
        case BTRFS_SUPER_MAGIC:
            t.typeName = "btrfs";
            break;
        case XFS_SUPER_MAGIC:
            t.typeName = "xfs";
            break;
        case TMPFS_MAGIC:
            t.typeName = "tmpfs";
            break;
        case 0xFF534D42UL:  // CIFS
        case 0xFE534D42UL:  // SMB2
            t.typeName = "smb";
            t.timeGranularityNs = 100;
            break;
        case NFS_SUPER_MAGIC:
            t.typeName = "nfs";
            break;
        default:
            t.typeName = "other";
            break;
    }
    return t;
}

}  // namespace ql
