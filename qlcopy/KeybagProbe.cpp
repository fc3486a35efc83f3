#include "qlcopy/KeybagProbe.h"

#include "QLSupport/Log.h"
#include "qlcopy/ErrnoText.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace ql {

SentinelKeybagProbe::SentinelKeybagProbe(std::string path) : path_(std::move(path)) {}

bool SentinelKeybagProbe::locked() {
    std::lock_guard lock(mutex_);
    auto now = std::chrono::steady_clock::now();
    if (cached_ && now - cachedAt_ < std::chrono::seconds(2)) return *cached_;
    bool isLocked = false;
    int fd = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd >= 0) {
        char byte;
        if (::read(fd, &byte, 1) < 0 && (isKeyAbsent(errno) || errno == EACCES)) isLocked = true;
        ::close(fd);
    } else {
        int e = errno;
        isLocked = isKeyAbsent(e) || e == EACCES || e == EPERM;
        if (!isLocked) Log::f("Keybag", "sentinel {} unreadable ({}) — not taken as a locked keybag", path_, ErrnoText::describe(e));
    }
    if (!cached_ || *cached_ != isLocked) Log::f("Keybag", "sentinel {} says the keybag is {}", path_, isLocked ? "LOCKED" : "unlocked");
    cached_ = isLocked;
    cachedAt_ = now;
    return isLocked;
}

}  // namespace ql
