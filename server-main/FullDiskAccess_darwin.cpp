#include "server-main/FullDiskAccess.h"

#include <fcntl.h>
#include <unistd.h>

namespace ql {

bool FullDiskAccess::granted() {
    // The privacy database itself is readable only with Full Disk Access.
    int fd = ::open("/Library/Application Support/com.apple.TCC/TCC.db", O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    ::close(fd);
    return true;
}

}  // namespace ql
