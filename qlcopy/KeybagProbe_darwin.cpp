#include "qlcopy/KeybagProbe.h"

#include "qlcopy/ErrnoText.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace ql {

// A data-protection class A file opened while the keybag is locked fails with EPERM.
bool KeybagProbe::isKeyAbsent(int error) { return error == EPERM; }

bool KeybagProbe::sentinelLocked(const std::string& path, std::string& detail) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd >= 0) {
        ::close(fd);
        detail = "it opens";
        return false;
    }
    const int e = errno;
    detail = "opening it fails: " + ErrnoText::describe(e);
    return isKeyAbsent(e);
}

}  // namespace ql
