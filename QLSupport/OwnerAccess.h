#pragma once

#include "QLSupport/UserCredentials.h"

#include <sys/types.h>

#include <tl/expected.hpp>

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace ql {

// The answer to "may this user read (or write) this path?".
struct AccessFinding {
    bool allowed = false;
    // The path whose check decided: the path itself, or for a write to a path that does not
    // exist yet, its nearest existing ancestor (where the missing folders would be created).
    std::string checkedPath;
    int error = 0;  // errno of the deciding check; 0 when allowed
    friend bool operator==(const AccessFinding&, const AccessFinding&) = default;
};

// Checks access with a user's own credentials. The server runs as root, and root may read and
// write nearly everything, so a check made with the server's rights would say yes to a job
// whose engine, running as the job's owner, is then refused. These checks run as the owner,
// and the kernel answers for the owner: groups, ACLs and folders the owner cannot search
// included.
//
// A probe failure (the check could not be made at all) is a sentence; a refusal is a finding.
class OwnerAccessProbe {
public:
    virtual ~OwnerAccessProbe() = default;

    // The path exists and the user may read it, and when it is a folder also list and enter it.
    virtual tl::expected<AccessFinding, std::string> canRead(const UserCredentials& user,
                                                             const std::string& path) const = 0;
    // The user may write the path (and enter it when it is a folder); when it does not exist,
    // may write and enter its nearest existing ancestor, to create it there. Only a missing
    // path leads up to its parent: a path under a folder the user cannot search is refused as
    // itself, with EACCES.
    virtual tl::expected<AccessFinding, std::string> canWrite(const UserCredentials& user,
                                                              const std::string& path) const = 0;
    // Creates the folder and any missing parents as the user, so that the user owns them and
    // the kernel decides whether they may be made. `mode` is given to mkdir for each (our umask
    // applies). Succeeds when the folder exists already; EEXIST when the path is not a folder;
    // otherwise the errno of the step that failed, or EPERM when the work could not be done as
    // the user at all (the reason is logged).
    virtual tl::expected<void, int> makeDirectories(const UserCredentials& user, const std::string& path,
                                                    mode_t mode) const = 0;

    // The path made absolute against our working directory, without trailing separators, then
    // each of its parents up to "/". Empty for an empty path.
    static std::vector<std::string> pathAndAncestors(const std::string& path);
};

// Makes each check in a forked child that has dropped to the user's credentials (exactly as a
// job's engine does) and reports back over a pipe, so nothing of root's rights can leak into
// the answer. When we are not root and the credentials are our own, checks in this process.
class LiveOwnerAccessProbe final : public OwnerAccessProbe {
public:
    tl::expected<AccessFinding, std::string> canRead(const UserCredentials& user,
                                                     const std::string& path) const override;
    tl::expected<AccessFinding, std::string> canWrite(const UserCredentials& user,
                                                      const std::string& path) const override;
    tl::expected<void, int> makeDirectories(const UserCredentials& user, const std::string& path,
                                            mode_t mode) const override;
};

// Answers from tables of path → errno (0: allowed); paths not in a table are allowed. As with
// the live probe, a write to a path whose entry is ENOENT is decided by its parent. The user is
// not consulted.
class FakeOwnerAccessProbe final : public OwnerAccessProbe {
public:
    std::map<std::string, int> readErrors;
    std::map<std::string, int> writeErrors;
    std::map<std::string, int> makeDirectoriesErrors;
    // Set: every check fails with this sentence.
    std::optional<std::string> probeFailure;
    // The folders makeDirectories was asked for and "made", in order.
    mutable std::vector<std::string> madeDirectories;

    tl::expected<AccessFinding, std::string> canRead(const UserCredentials& user,
                                                     const std::string& path) const override;
    tl::expected<AccessFinding, std::string> canWrite(const UserCredentials& user,
                                                      const std::string& path) const override;
    tl::expected<void, int> makeDirectories(const UserCredentials& user, const std::string& path,
                                            mode_t mode) const override;
};

}  // namespace ql
