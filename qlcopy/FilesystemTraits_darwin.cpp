#include "qlcopy/FilesystemTraits.h"

#include <sys/mount.h>
#include <sys/param.h>

#include <cstring>

namespace ql {

FilesystemTraits FilesystemTraits::of(int fd) {
    FilesystemTraits t;
    struct statfs s;
    if (::fstatfs(fd, &s) != 0) {
        t.typeName = "unknown";
        return t;
    }
    t.typeName = s.f_fstypename;
    if (t.typeName == "msdos") {
        t.timeGranularityNs = 2'000'000'000;
    } else if (t.typeName == "exfat") {
        t.timeGranularityNs = 10'000'000;
    } else if (t.typeName == "hfs" || t.typeName == "smbfs" || t.typeName == "afpfs") {
        t.timeGranularityNs = 1'000'000'000;
    }
    return t;
}

}  // namespace ql
