#include "QLSupport/ThreadFileCredentials.h"

#include "QLSupport/Log.h"

#include <sys/fsuid.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <fmt/format.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace ql {

namespace {

// glibc's setgroups(3) changes every thread of the process; the system call itself changes
// only the calling thread, which is what is wanted here.
int setThreadGroups(const std::vector<gid_t>& groups) {
    return static_cast<int>(::syscall(SYS_setgroups, groups.size(), groups.data()));
}

std::vector<gid_t> processGroups() {
    const int count = ::getgroups(0, nullptr);
    std::vector<gid_t> groups(count > 0 ? static_cast<std::size_t>(count) : 0);
    if (count > 0 && ::getgroups(count, groups.data()) < 0) groups.clear();
    return groups;
}

// setfsuid answers with the previous value whatever happens; asking again with an invalid id
// tells the current one.
bool fileIdsAre(uid_t uid, gid_t gid) {
    return static_cast<uid_t>(::setfsuid(static_cast<uid_t>(-1))) == uid &&
           static_cast<gid_t>(::setfsgid(static_cast<gid_t>(-1))) == gid;
}

void restore() {
    ::setfsuid(::geteuid());
    ::setfsgid(::getegid());
    if (setThreadGroups(processGroups()) != 0 || !fileIdsAre(::geteuid(), ::getegid())) {
        // A pool thread that can't get its own rights back must not go on doing work.
        Log::line("credentials", "could not restore a thread's own file credentials — stopping");
        std::abort();
    }
}

}  // namespace

tl::expected<ThreadFileCredentials, std::string> ThreadFileCredentials::adopt(const UserCredentials& user) {
    if (setThreadGroups(user.groups) != 0) {
        const int code = errno;
        return tl::unexpected(fmt::format("could not take on the groups of {}: {}", user.label(), std::strerror(code)));
    }
    ::setfsgid(user.gid);
    ::setfsuid(user.uid);
    if (!fileIdsAre(user.uid, user.gid)) {
        restore();
        return tl::unexpected(fmt::format("could not take on the file rights of {}", user.label()));
    }
    ThreadFileCredentials adopted;
    adopted.active_ = true;
    return adopted;
}

ThreadFileCredentials::~ThreadFileCredentials() {
    if (active_) restore();
}

}  // namespace ql
