#pragma once

#include "QLProtocol/server/approval/AdministratorApproval.h"
#include "QLSupport/PosixSpawnedProcess.h"

#include <sys/types.h>

#include <tl/expected.hpp>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace ql::testing {

// The real polkitd on a private system bus, for tests that ask polkit real questions without
// touching the machine's own bus or its polkit configuration.
//
// A dbus-daemon with a system-bus-like configuration listens on a socket in a fresh temporary
// folder. polkitd then runs in a mount namespace of its own in which the folders it reads its
// actions and rules from are bind mounts of folders in that temporary folder: the actions
// folder holds only the given policy files, /etc/polkit-1/rules.d only the given rules, and the
// distribution's rules folder is empty, so the machine's administrator rules play no part.
// polkitd drops to the "polkitd" user, so the temporary folders are world-traversable.
//
// Needs root (for the mount namespace and for polkit to take subjects from us); see
// `unavailableReason`. Construction waits until polkitd owns org.freedesktop.PolicyKit1 on the
// private bus; destruction stops both daemons and removes the folder. The daemons also die
// with the thread that started them, so a test that crashes leaves none behind (construct it
// on a thread that lives as long as it does, such as the test's main thread).
class PrivatePolkit {
public:
    struct Options {
        // Policy (.policy) files polkitd should know.
        std::vector<std::filesystem::path> actionFiles;
        // JavaScript for /etc/polkit-1/rules.d (polkit.addRule(...)); nothing: no rules at all,
        // so the actions' defaults decide.
        std::optional<std::string> rules;
        // False: only the bus runs, so that nobody answers for polkit.
        bool startPolkitd = true;
        std::chrono::milliseconds startTimeout = std::chrono::seconds(20);
    };

    explicit PrivatePolkit(Options options);
    ~PrivatePolkit();
    PrivatePolkit(const PrivatePolkit&) = delete;
    PrivatePolkit& operator=(const PrivatePolkit&) = delete;

    // Why this machine can't run the harness (not root, a tool or the polkitd user missing);
    // nothing when it can.
    static std::optional<std::string> unavailableReason();

    // False (with `error()`) when the bus or polkitd did not come up.
    bool ok() const { return error_.empty(); }
    const std::string& error() const { return error_; }
    // "unix:path=…": what DBUS_SYSTEM_BUS_ADDRESS should hold for the private bus.
    const std::string& busAddress() const { return busAddress_; }
    const std::filesystem::path& directory() const { return directory_; }
    // What polkitd wrote to its standard output and error.
    std::string polkitdLog() const;

private:
    std::string startBus(std::chrono::milliseconds timeout);
    std::string startPolkitd(std::chrono::milliseconds timeout);
    void stop(std::optional<PosixSpawnedProcess>& process);

    std::filesystem::path directory_;
    std::string busAddress_;
    std::optional<PosixSpawnedProcess> bus_;
    std::optional<PosixSpawnedProcess> polkitd_;
    std::string error_;
};

// Sets an environment variable for its lifetime, then restores what was there.
class ScopedEnvironment {
public:
    ScopedEnvironment(std::string name, const std::string& value);
    ~ScopedEnvironment();
    ScopedEnvironment(const ScopedEnvironment&) = delete;
    ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

private:
    std::string name_;
    std::optional<std::string> previous_;
};

struct TestUser {
    std::string name;
    uid_t uid = 0;
    gid_t gid = 0;
};

// The user `name`, created as a system user without a home folder when missing (and left in
// place afterwards). Needs root to create one.
tl::expected<TestUser, std::string> ensureTestUser(const std::string& name);

// A `sleep` running as a user: a real process of that user to name as a subject. Killed and
// reaped when destroyed.
class ProcessAsUser {
public:
    static tl::expected<ProcessAsUser, std::string> start(const TestUser& user);
    ProcessAsUser(ProcessAsUser&&) = default;
    ProcessAsUser& operator=(ProcessAsUser&&) = default;
    ~ProcessAsUser();

    const ApprovalSubject& subject() const { return subject_; }

private:
    ProcessAsUser(PosixSpawnedProcess process, ApprovalSubject subject)
        : process_(std::move(process)), subject_(subject) {}

    std::optional<PosixSpawnedProcess> process_;
    ApprovalSubject subject_;
};

// The start time of a process (field 22 of /proc/<pid>/stat), or nothing when it has ended.
std::optional<std::uint64_t> processStartTime(pid_t pid);
// This test process as a subject.
ApprovalSubject subjectOfThisProcess();

}  // namespace ql::testing
