#include "qlcopy/PlatformCopy.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/types.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>

namespace ql {

int PlatformCopy::cloneInto(int srcFd, int dirFd, const char* name, mode_t mode) {
    int fd = ::openat(dirFd, name, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    if (fd < 0) return -errno;
    if (::ioctl(fd, FICLONE, srcFd) != 0) {
        int e = errno;
        ::close(fd);
        ::unlinkat(dirFd, name, 0);
        return -e;
    }
    return fd;
}

std::int64_t PlatformCopy::copyRange(int srcFd, std::int64_t srcOffset, int dstFd, std::int64_t dstOffset,
                                     std::int64_t length) {
    off64_t in = srcOffset;
    off64_t out = dstOffset;
    ssize_t n = ::copy_file_range(srcFd, &in, dstFd, &out, static_cast<size_t>(length), 0);
    return n < 0 ? -errno : n;
}

bool PlatformCopy::cloneUnsupported(int error) {
    return error == EOPNOTSUPP || error == ENOTTY || error == EINVAL || error == EXDEV || error == ENOSYS;
}

bool PlatformCopy::rangeUnsupported(int error) {
    return error == EXDEV || error == ENOSYS || error == EOPNOTSUPP || error == EINVAL;
}

}  // namespace ql
