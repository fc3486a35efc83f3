#pragma once

// What some machines can't offer a test, so that the test skips with the reason instead of
// failing: a private chroot (such as a fresh system unpacked into a folder of root's) has a root
// folder other users can't enter, and no mount of its own at "/".

#include <sys/stat.h>

#include <fstream>
#include <optional>
#include <sstream>
#include <string>

namespace ql::testing {

// Why processes of another user can't run here, if they can't: they couldn't even reach "/".
inline std::optional<std::string> whyOtherUsersCantRun() {
    struct stat root {};
    if (::stat("/", &root) != 0 || (root.st_mode & S_IXOTH) == 0) {
        return std::string("other users can't enter \"/\" on this machine (a private chroot), so nothing can run "
                           "as them");
    }
    return std::nullopt;
}

// Why the volumes holding this machine's folders can't be found, if they can't: nothing is
// mounted at "/" as this process sees the mount table.
inline std::optional<std::string> whyNoVolumeHoldsRoot() {
    std::ifstream table("/proc/self/mountinfo");
    std::string line;
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        std::string id, parent, device, root, mountPoint;
        fields >> id >> parent >> device >> root >> mountPoint;
        if (mountPoint == "/") return std::nullopt;
    }
    return std::string("nothing is mounted at \"/\" as this process sees it (a chroot), so no volume holds its "
                       "folders");
}

}  // namespace ql::testing
