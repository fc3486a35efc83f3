#include "QLSupport/PosixSpawnedProcess.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace ql::detail {

// With POSIX_SPAWN_CLOEXEC_DEFAULT the child keeps only the descriptors that the file actions
// produced (0–3 here); everything else is closed on exec.
int closeDescriptorsFrom(posix_spawn_file_actions_t&, short& flags, int, std::string& operation) {
    operation = "_cloexec_default";
    flags |= POSIX_SPAWN_CLOEXEC_DEFAULT;
    return 0;
}

// macOS has no pipe2; the window between pipe and fcntl only matters to spawns that do not
// close inherited descriptors, and ours all do.
int makeCloexecPipe(int fds[2]) {
    if (::pipe(fds) != 0) return errno;
    for (int i = 0; i < 2; ++i) {
        if (::fcntl(fds[i], F_SETFD, FD_CLOEXEC) != 0) {
            int code = errno;
            ::close(fds[0]);
            ::close(fds[1]);
            return code;
        }
    }
    return 0;
}

// macOS has no close_range; every descriptor is marked in turn.
int markCloseOnExecFrom(int lowest, int limit) {
    for (int fd = lowest; fd < limit; ++fd) {
        int flags = ::fcntl(fd, F_GETFD);
        if (flags >= 0 && !(flags & FD_CLOEXEC) && ::fcntl(fd, F_SETFD, flags | FD_CLOEXEC) != 0) return errno;
    }
    return 0;
}

}  // namespace ql::detail
