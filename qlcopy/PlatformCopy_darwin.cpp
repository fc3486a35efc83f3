#include "qlcopy/PlatformCopy.h"

#include <fcntl.h>
#include <sys/clonefile.h>
#include <unistd.h>

#include <cerrno>

namespace ql {

int PlatformCopy::cloneInto(int srcFd, int dirFd, const char* name, mode_t mode) {
    // The clone gets the engine's ownership; the metadata step sets the source's afterwards.
    if (::fclonefileat(srcFd, dirFd, name, CLONE_NOOWNERCOPY) != 0) return -errno;
    int fd = ::openat(dirFd, name, O_WRONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd >= 0) ::fchmod(fd, mode);  // the clone carries the source's mode; make it the one asked for
    if (fd < 0) {
        int e = errno;
        ::unlinkat(dirFd, name, 0);
        return -e;
    }
    return fd;
}

// No kernel range copy on macOS: the portable read/write loop moves the data.
std::int64_t PlatformCopy::copyRange(int, std::int64_t, int, std::int64_t, std::int64_t) { return -ENOTSUP; }

bool PlatformCopy::cloneUnsupported(int error) {
    return error == ENOTSUP || error == EXDEV || error == EINVAL;
}

bool PlatformCopy::rangeUnsupported(int) { return true; }

}  // namespace ql
