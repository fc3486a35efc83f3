#include "qlcopy/ThreadPriority.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace ql {

// On Linux the nice value is per thread when addressed by thread id.
void ThreadPriority::lowerCurrentThread() {
    ::setpriority(PRIO_PROCESS, static_cast<id_t>(::syscall(SYS_gettid)), 10);
}

}  // namespace ql
