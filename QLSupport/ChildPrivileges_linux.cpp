#include "QLSupport/ChildPrivileges.h"

#include <grp.h>
#include <sys/prctl.h>
#include <unistd.h>

namespace ql::detail {

int setGroupList(const gid_t* groups, std::size_t count) { return ::setgroups(count, groups); }

int setAllGroupIds(gid_t gid) { return ::setresgid(gid, gid, gid); }

int setAllUserIds(uid_t uid) { return ::setresuid(uid, uid, uid); }

bool allIdsAre(uid_t uid, gid_t gid) {
    uid_t ruid, euid, suid;
    gid_t rgid, egid, sgid;
    if (::getresuid(&ruid, &euid, &suid) != 0 || ::getresgid(&rgid, &egid, &sgid) != 0) return false;
    return ruid == uid && euid == uid && suid == uid && rgid == gid && egid == gid && sgid == gid;
}

// Inherited by everything the child execs; "NoNewPrivs: 1" in /proc/<pid>/status.
int forbidNewPrivileges() { return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0); }

}  // namespace ql::detail
