#pragma once

#include <sys/types.h>

#include <tl/expected.hpp>

#include <string>
#include <vector>

namespace ql {

// Who a child process runs as: the user id, the primary group and the full list of groups the
// kernel checks access against. The server, running as root, starts a job's engine and checks
// a job's folders with the job owner's credentials, so the answer is the owner's and not root's.
struct UserCredentials {
    uid_t uid = 0;
    gid_t gid = 0;
    // Supplementary groups as the login would set them: the primary group and every group that
    // lists the user (what initgroups(3) installs).
    std::vector<gid_t> groups;
    std::string name;  // empty when made with `forIds`
    std::string home;

    // Looks the user up in the password and group databases (getpwuid_r, getgrouplist). This
    // is done before any fork: those lookups may take locks and allocate, which a child of a
    // threaded process must not do. The error is a sentence for the user.
    static tl::expected<UserCredentials, std::string> forUser(uid_t uid);
    // Credentials given outright, not looked up; `groups` are taken as they are.
    static UserCredentials forIds(uid_t uid, gid_t gid, std::vector<gid_t> groups);

    bool isRoot() const { return uid == 0; }
    // "user 1001": how messages name the user, by id, which is what the kernel knows.
    std::string label() const;

    friend bool operator==(const UserCredentials&, const UserCredentials&) = default;
};

}  // namespace ql
