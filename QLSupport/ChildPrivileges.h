#pragma once

#include "QLSupport/UserCredentials.h"

#include <sys/types.h>

#include <cstddef>
#include <string>

// The child side of running something as another user: a forked child of the (threaded) server
// sets itself up and drops root's privileges for a user's. Between fork and exec only
// async-signal-safe calls are allowed (another thread may have held the allocator's or the
// password database's lock at the moment of the fork), so everything the child needs is
// prepared by the parent before it forks, and failures travel back as numbers.
namespace ql::detail {

// The step at which a forked child failed, written back to the parent with the errno.
enum class ChildStage : int {
    none = 0,
    signals,
    processGroup,
    standardInput,
    descriptors,
    closeOnExec,
    setgroups,
    setgid,
    setuid,
    noNewPrivileges,
    verifyIds,
    verifyGroups,
    verifyRootDropped,
    workingDirectory,
    exec,
};

// "setuid failed: Operation not permitted (errno=1)", or for the checks made after dropping
// privileges a sentence fragment saying what was found.
std::string describeChildFailure(ChildStage stage, int code);

// The credentials to drop to, in a form the child can use without allocating. Points into the
// `UserCredentials` it was made from, which must outlive the child's use of it.
struct PrivilegeDrop {
    uid_t uid = 0;
    gid_t gid = 0;
    const gid_t* groups = nullptr;
    std::size_t groupCount = 0;
    // False only when we are not root and the credentials are exactly our own: an unprivileged
    // process may not call setgroups even to install the list it already has, and has nothing
    // to drop.
    bool setGroups = true;
};

// Parent side, before fork.
PrivilegeDrop preparePrivilegeDrop(const UserCredentials& credentials);

// Child side; async-signal-safe. Installs the group list, then the group id, then the user id
// (real, effective and saved each time; the user id last, since afterwards nothing else may be
// changed), forbids gaining privileges through exec (set-user-id binaries, file capabilities),
// and then checks the result instead of trusting it: every id is the target's, the group list
// has the target's length, and a non-root target cannot become root again. Returns 0, or an
// errno (0 for a failed check) with the step in `failedStage`.
int dropPrivileges(const PrivilegeDrop& drop, ChildStage& failedStage) noexcept;

// fork(2) with every signal blocked in the child, so that none of our signal handlers can run
// there before the child has reset them; the caller's mask is restored in the parent. Returns
// what fork returned, with errno kept on failure.
pid_t forkWithSignalsBlocked();

// Platform parts, all async-signal-safe.
int setGroupList(const gid_t* groups, std::size_t count);
int setAllGroupIds(gid_t gid);  // real, effective and saved
int setAllUserIds(uid_t uid);   // real, effective and saved
bool allIdsAre(uid_t uid, gid_t gid);
// Makes exec unable to grant privileges; 0 where the platform has no such switch.
int forbidNewPrivileges();

}  // namespace ql::detail
