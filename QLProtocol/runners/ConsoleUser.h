#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace ql {

// The user sitting at the machine: whose home the engine treats as the console user's, and who
// owns files copied from a volume that keeps no owners.
struct ConsoleUser {
    uid_t uid = 0;
    gid_t gid = 0;
    std::string name;
    std::string home;

    // "uid:gid", as the engine takes it.
    std::string ownerText() const;

    // The platform's answer. macOS: the owner of /dev/console. Linux: the active user of the
    // first seat (systemd's seat record); a server that does not run as root serves its own
    // user, who is then the console user. Nothing when no one is logged in at the console.
    static std::optional<ConsoleUser> current();
    // The password database's record for a uid.
    static std::optional<ConsoleUser> forUid(uid_t uid);
};

}  // namespace ql
