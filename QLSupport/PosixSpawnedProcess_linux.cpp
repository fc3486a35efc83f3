#include "QLSupport/PosixSpawnedProcess.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace ql::detail {

// glibc closes the range in the child just before exec.
int closeDescriptorsFrom(posix_spawn_file_actions_t& actions, short&, int lowest, std::string& operation) {
    operation = "_addclosefrom_np";
    return posix_spawn_file_actions_addclosefrom_np(&actions, lowest);
}

int makeCloexecPipe(int fds[2]) { return ::pipe2(fds, O_CLOEXEC) == 0 ? 0 : errno; }

// close_range with CLOSE_RANGE_CLOEXEC (Linux 5.11) in one call; older kernels refuse the flag
// or the call, and then every descriptor is marked in turn.
int markCloseOnExecFrom(int lowest, int limit) {
    if (::close_range(static_cast<unsigned>(lowest), ~0U, CLOSE_RANGE_CLOEXEC) == 0) return 0;
    if (errno != ENOSYS && errno != EINVAL) return errno;
    for (int fd = lowest; fd < limit; ++fd) {
        int flags = ::fcntl(fd, F_GETFD);
        if (flags >= 0 && !(flags & FD_CLOEXEC) && ::fcntl(fd, F_SETFD, flags | FD_CLOEXEC) != 0) return errno;
    }
    return 0;
}

}  // namespace ql::detail
