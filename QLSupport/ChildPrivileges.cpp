#include "QLSupport/ChildPrivileges.h"

#include <signal.h>
#include <unistd.h>

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

namespace ql::detail {
namespace {

const char* stageName(ChildStage stage) {
    switch (stage) {
        case ChildStage::none: return "nothing";
        case ChildStage::signals: return "resetting signal handling";
        case ChildStage::processGroup: return "setpgid";
        case ChildStage::standardInput: return "opening /dev/null";
        case ChildStage::descriptors: return "dup2";
        case ChildStage::closeOnExec: return "marking descriptors close-on-exec";
        case ChildStage::setgroups: return "setgroups";
        case ChildStage::setgid: return "setgid";
        case ChildStage::setuid: return "setuid";
        case ChildStage::noNewPrivileges: return "forbidding new privileges";
        case ChildStage::verifyIds: return "checking the user and group ids";
        case ChildStage::verifyGroups: return "checking the group list";
        case ChildStage::verifyRootDropped: return "checking that root was dropped";
        case ChildStage::workingDirectory: return "chdir";
        case ChildStage::exec: return "execve";
    }
    return "an unknown step";
}

}  // namespace

std::string describeChildFailure(ChildStage stage, int code) {
    switch (stage) {
        case ChildStage::verifyIds:
            return "the user and group ids were not the expected ones after dropping privileges";
        case ChildStage::verifyGroups:
            return "the group list was not the expected one after dropping privileges";
        case ChildStage::verifyRootDropped:
            return "root privileges could be regained after dropping them";
        default:
            return fmt::format("{} failed: {} (errno={})", stageName(stage), std::strerror(code), code);
    }
}

PrivilegeDrop preparePrivilegeDrop(const UserCredentials& credentials) {
    PrivilegeDrop drop;
    drop.uid = credentials.uid;
    drop.gid = credentials.gid;
    drop.groups = credentials.groups.data();
    drop.groupCount = credentials.groups.size();
    if (::geteuid() != 0 && credentials.uid == ::getuid() && credentials.uid == ::geteuid() &&
        credentials.gid == ::getgid() && credentials.gid == ::getegid()) {
        int count = ::getgroups(0, nullptr);
        std::vector<gid_t> ours(static_cast<std::size_t>(std::max(count, 0)));
        if (count >= 0 && ::getgroups(count, ours.data()) == count) {
            std::vector<gid_t> wanted = credentials.groups;
            std::sort(ours.begin(), ours.end());
            std::sort(wanted.begin(), wanted.end());
            drop.setGroups = ours != wanted;
        }
    }
    return drop;
}

int dropPrivileges(const PrivilegeDrop& drop, ChildStage& failedStage) noexcept {
    auto fail = [&](ChildStage stage, int code) {
        failedStage = stage;
        return code;
    };
    if (drop.setGroups && setGroupList(drop.groups, drop.groupCount) != 0) return fail(ChildStage::setgroups, errno);
    if (setAllGroupIds(drop.gid) != 0) return fail(ChildStage::setgid, errno);
    if (setAllUserIds(drop.uid) != 0) return fail(ChildStage::setuid, errno);
    if (forbidNewPrivileges() != 0) return fail(ChildStage::noNewPrivileges, errno);

    if (!allIdsAre(drop.uid, drop.gid)) return fail(ChildStage::verifyIds, 0);
    if (drop.setGroups && ::getgroups(0, nullptr) != static_cast<int>(drop.groupCount)) {
        return fail(ChildStage::verifyGroups, 0);
    }
    if (drop.uid != 0 && ::setuid(0) == 0) return fail(ChildStage::verifyRootDropped, 0);
    failedStage = ChildStage::none;
    return 0;
}

pid_t forkWithSignalsBlocked() {
    sigset_t all, previous;
    sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &previous);
    pid_t pid = ::fork();
    if (pid != 0) {
        int code = errno;
        ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
        errno = code;
    }
    return pid;
}

}  // namespace ql::detail
