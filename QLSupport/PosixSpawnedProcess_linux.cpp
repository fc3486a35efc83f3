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

}  // namespace ql::detail
