#pragma once

#include <sys/types.h>

#include <cstdint>

namespace ql {

// The platform's fast routes for file data. Linux: FICLONE (reflink) and copy_file_range;
// macOS: fclonefileat (no kernel range copy; data goes through the portable loop).
class PlatformCopy {
public:
    // Makes `name` in `dirFd` a clone of the open file `srcFd` and returns a descriptor of the
    // new file open for writing, or -errno. When cloning is not possible, nothing is left behind.
    static int cloneInto(int srcFd, int dirFd, const char* name, mode_t mode);
    // Copies up to `length` bytes inside the kernel between the given offsets; returns the
    // number of bytes copied (0 at the end of the source) or -errno.
    static std::int64_t copyRange(int srcFd, std::int64_t srcOffset, int dstFd, std::int64_t dstOffset,
                                  std::int64_t length);
    // The error says that the route does not work between these files (try the next route).
    static bool cloneUnsupported(int error);
    static bool rangeUnsupported(int error);
};

}  // namespace ql
