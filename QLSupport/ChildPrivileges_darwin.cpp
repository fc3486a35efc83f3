#include "QLSupport/ChildPrivileges.h"

#include <grp.h>
#include <unistd.h>

namespace ql::detail {

int setGroupList(const gid_t* groups, std::size_t count) { return ::setgroups(static_cast<int>(count), groups); }

// For a process whose effective user is root, setgid and setuid set the real, effective and
// saved ids together.
int setAllGroupIds(gid_t gid) { return ::setgid(gid); }

int setAllUserIds(uid_t uid) { return ::setuid(uid); }

// macOS cannot report the saved ids; after setuid as root they equal the real ones, and the
// caller's check that root cannot be regained covers a saved id left at 0.
bool allIdsAre(uid_t uid, gid_t gid) {
    return ::getuid() == uid && ::geteuid() == uid && ::getgid() == gid && ::getegid() == gid;
}

// macOS has no switch that forbids gaining privileges through exec.
int forbidNewPrivileges() { return 0; }

}  // namespace ql::detail
