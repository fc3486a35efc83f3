#include "QLSupport/UserCredentials.h"

#include "QLSupport/Log.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace ql {
namespace {

constexpr const char* kTag = "credentials";

// glibc declares getgrouplist with gid_t, macOS with int; the group list is read through
// whichever the platform has. The buffer grows until the list fits: glibc reports the count it
// needs, macOS only that it did not fit.
template <typename Id>
bool readGroupList(int (*getgrouplistFunction)(const char*, Id, Id*, int*), const char* name, gid_t gid,
                   std::vector<gid_t>& groups) {
    int capacity = 32;
    for (int attempt = 0; attempt < 16; ++attempt) {
        std::vector<Id> buffer(static_cast<std::size_t>(capacity));
        int count = capacity;
        if (getgrouplistFunction(name, static_cast<Id>(gid), buffer.data(), &count) >= 0) {
            groups.clear();
            for (int i = 0; i < count; ++i) groups.push_back(static_cast<gid_t>(buffer[static_cast<std::size_t>(i)]));
            return true;
        }
        capacity = std::max(count, capacity * 2);
    }
    return false;
}

}  // namespace

tl::expected<UserCredentials, std::string> UserCredentials::forUser(uid_t uid) {
    long hint = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    std::size_t size = hint > 0 ? static_cast<std::size_t>(hint) : 1024;
    std::vector<char> buffer;
    passwd entry{};
    passwd* found = nullptr;
    for (;;) {
        buffer.resize(size);
        int rc = ::getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found);
        if (rc == EINTR) continue;
        if (rc == ERANGE && size < (std::size_t{1} << 20)) {
            size *= 2;
            continue;
        }
        if (found) break;
        // Not finding the user is reported as 0 by POSIX, and as one of these by some systems.
        if (rc == 0 || rc == ENOENT || rc == ESRCH) {
            Log::f(kTag, "no user with id {}", uid);
            return tl::unexpected(fmt::format("There is no user with id {} on this computer.", uid));
        }
        Log::f(kTag, "getpwuid_r({}) failed: {} (errno={})", uid, std::strerror(rc), rc);
        return tl::unexpected(fmt::format("Could not look up the user with id {}: {} (errno={}).", uid,
                                          std::strerror(rc), rc));
    }

    UserCredentials credentials;
    credentials.uid = entry.pw_uid;
    credentials.gid = entry.pw_gid;
    credentials.name = entry.pw_name ? entry.pw_name : "";
    credentials.home = entry.pw_dir ? entry.pw_dir : "";
    if (!readGroupList(&::getgrouplist, credentials.name.c_str(), credentials.gid, credentials.groups)) {
        Log::f(kTag, "getgrouplist({}) did not fit in any buffer we tried", credentials.name);
        return tl::unexpected(
            fmt::format("Could not list the groups of user {} (id {}).", credentials.name, credentials.uid));
    }
    return credentials;
}

UserCredentials UserCredentials::forIds(uid_t uid, gid_t gid, std::vector<gid_t> groups) {
    UserCredentials credentials;
    credentials.uid = uid;
    credentials.gid = gid;
    credentials.groups = std::move(groups);
    return credentials;
}

std::string UserCredentials::label() const { return fmt::format("user {}", uid); }

}  // namespace ql
