#pragma once

#include <signal.h>
#include <spawn.h>
#include <sys/types.h>

#include "QLSupport/UserCredentials.h"

#include <tl/expected.hpp>

#include <array>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace ql {

// A long-running child (the copy engine, the replication tool) started with posix_spawn and
// three pipes whose read ends stay with us, so the caller can read them while the child runs:
// the child's descriptor 1 feeds `stdoutHandle`, descriptor 2 `stderrHandle` and descriptor 3
// (the engine's NDJSON event stream) `ndjsonHandle`. The child's standard input is /dev/null
// unless a standard-input pipe is asked for, and it inherits no other descriptor of ours.
//
// Signals go to the child's pid, or to its whole process group when it was given its own.
// The object owns the child: `wait` / `tryWait` reap it, and destroying a process whose child
// is still running hands the child to a background reaper that collects its status when it
// ends, so no zombie is left behind (the child is not signalled; stop it first if that is
// wanted).
//
// With `Options::runAs` the child runs as another user: it is forked rather than posix_spawned,
// and between fork and exec it sets up the same descriptors and signals, then drops to that
// user's ids and groups and checks that it did before it execs.
class PosixSpawnedProcess {
public:
    // An owned file descriptor, closed when destroyed.
    class Descriptor {
    public:
        Descriptor() = default;
        explicit Descriptor(int fd) : fd_(fd) {}
        ~Descriptor() { reset(); }
        Descriptor(Descriptor&& other) noexcept : fd_(other.release()) {}
        Descriptor& operator=(Descriptor&& other) noexcept {
            if (this != &other) reset(other.release());
            return *this;
        }
        Descriptor(const Descriptor&) = delete;
        Descriptor& operator=(const Descriptor&) = delete;

        int get() const { return fd_; }
        bool valid() const { return fd_ >= 0; }
        explicit operator bool() const { return valid(); }
        int release() {
            int fd = fd_;
            fd_ = -1;
            return fd;
        }
        void reset(int fd = -1);

    private:
        int fd_ = -1;
    };

    struct SpawnError {
        enum class Kind { pipeFailed, fileActionsFailed, spawnFailed, startAsUserFailed };
        Kind kind = Kind::pipeFailed;
        int code = 0;  // errno
        // fileActionsFailed: the failing call, e.g. "_adddup2"; startAsUserFailed: what failed,
        // e.g. "setuid failed: Operation not permitted (errno=1)".
        std::string operation;
        std::string executable;  // spawnFailed, startAsUserFailed
        uid_t user = 0;          // startAsUserFailed

        static SpawnError pipeFailed(int code) { return {Kind::pipeFailed, code, {}, {}, 0}; }
        static SpawnError fileActionsFailed(std::string operation, int code) {
            return {Kind::fileActionsFailed, code, std::move(operation), {}, 0};
        }
        static SpawnError spawnFailed(int code, std::string executable) {
            return {Kind::spawnFailed, code, {}, std::move(executable), 0};
        }
        static SpawnError startAsUserFailed(std::string what, int code, std::string executable, uid_t user) {
            return {Kind::startAsUserFailed, code, std::move(what), std::move(executable), user};
        }
        std::string message() const;
        friend bool operator==(const SpawnError&, const SpawnError&) = default;
    };

    struct Options {
        // "NAME=value" entries; absent: the child inherits our environment.
        std::optional<std::vector<std::string>> environment;
        // Absent: the child starts in our working directory.
        std::optional<std::filesystem::path> workingDirectory;
        // Connect the child's descriptor 0 to a pipe whose non-blocking write end is
        // `stdinHandle`; otherwise the child reads /dev/null.
        bool standardInputPipe = false;
        // Connect the child's descriptor 3 to `ndjsonHandle`; otherwise descriptor 3 is closed
        // in the child like every descriptor above 2.
        bool eventPipe = true;
        // Make the child the leader of a new process group, so that a signal can reach the
        // child and everything it started (see `signalGroup`).
        bool ownProcessGroup = false;
        // Run the child with this user's ids and groups, so that the kernel decides what it may
        // read, write and delete. Needs root, except to run as ourselves (same ids and groups).
        // The working directory is entered after dropping privileges, as that user.
        std::optional<UserCredentials> runAs;
    };

    // How the child ended. `code` is the exit code of a normal exit, or 128 + the signal
    // number when a signal ended it (the shell's convention).
    struct ExitStatus {
        int code = 0;
        bool signalled = false;
        int signal = 0;
        friend bool operator==(const ExitStatus&, const ExitStatus&) = default;
    };

    // Starts `executable` (a path; no search of PATH, no shell) with `arguments` as argv[1...];
    // argv[0] is the executable itself.
    static tl::expected<PosixSpawnedProcess, SpawnError> spawn(const std::string& executable,
                                                               const std::vector<std::string>& arguments,
                                                               const Options& options);
    static tl::expected<PosixSpawnedProcess, SpawnError> spawn(const std::string& executable,
                                                               const std::vector<std::string>& arguments) {
        return spawn(executable, arguments, Options{});
    }

    PosixSpawnedProcess(PosixSpawnedProcess&& other) noexcept;
    PosixSpawnedProcess& operator=(PosixSpawnedProcess&& other) noexcept;
    PosixSpawnedProcess(const PosixSpawnedProcess&) = delete;
    PosixSpawnedProcess& operator=(const PosixSpawnedProcess&) = delete;
    ~PosixSpawnedProcess();

    pid_t pid = -1;
    Descriptor stdoutHandle;
    Descriptor stderrHandle;
    Descriptor ndjsonHandle;  // invalid when spawned without the event pipe
    Descriptor stdinHandle;   // valid only when spawned with a standard-input pipe

    const std::string& executable() const { return executable_; }
    bool hasOwnProcessGroup() const { return ownProcessGroup_; }

    // Signals to the child. Each fails with ESRCH once the child has been reaped (its pid may
    // already belong to another process by then), or with kill(2)'s errno.
    tl::expected<void, int> sendSignal(int signal) const;
    tl::expected<void, int> interrupt() const { return sendSignal(SIGINT); }
    tl::expected<void, int> kill() const { return sendSignal(SIGKILL); }
    tl::expected<void, int> stop() const { return sendSignal(SIGSTOP); }
    tl::expected<void, int> resume() const { return sendSignal(SIGCONT); }
    // The same to every process in the child's group; only for a child spawned with
    // `ownProcessGroup`, and only while the child has not been reaped (its group may still
    // have members afterwards, but its id is then no longer ours to use).
    tl::expected<void, int> signalGroup(int signal) const;

    // The exit status if the child has ended (reaping it), nothing while it still runs, or the
    // errno of waitpid.
    tl::expected<std::optional<ExitStatus>, int> tryWait();
    // Blocks until the child ends and reaps it. Returns the recorded status when it was
    // reaped before.
    tl::expected<ExitStatus, int> wait();
    bool reaped() const { return status_.has_value(); }

    static ExitStatus decodeStatus(int waitStatus);

private:
    PosixSpawnedProcess() = default;
    void abandon();

    std::string executable_;
    bool ownProcessGroup_ = false;
    std::optional<ExitStatus> status_;
};

namespace detail {
// The argument and environment vectors exec takes, pointing into the strings they were made
// from (which must outlive them); the environment is ours when none is given.
struct ExecVectors {
    std::vector<char*> argv;
    std::vector<char*> envp;
    char** environment = nullptr;

    static ExecVectors of(const std::string& executable, const std::vector<std::string>& arguments,
                          const std::optional<std::vector<std::string>>& environment);
};

// Platform part of spawning: arranges for every descriptor from `lowest` upwards to be closed
// in the child, by a file action or by a spawn flag added to `flags`. Returns 0, or an errno
// with the failing call named in `operation` (as a suffix of "posix_spawn_file_actions").
int closeDescriptorsFrom(posix_spawn_file_actions_t& actions, short& flags, int lowest, std::string& operation);
// pipe(2) with both ends close-on-exec, atomically where the platform allows. Returns 0 or errno.
int makeCloexecPipe(int fds[2]);

// The signals a child starts with default handling of, whatever we ignore or handle.
inline constexpr std::array<int, 12> kSignalsResetInChild = {SIGPIPE, SIGINT,  SIGTERM, SIGHUP,  SIGQUIT, SIGCHLD,
                                                             SIGTSTP, SIGTTIN, SIGTTOU, SIGUSR1, SIGUSR2, SIGALRM};

// The ends the child receives as descriptors 0–3; -1 for standard input means /dev/null, for
// events that descriptor 3 stays closed. All are close-on-exec and above 3 in the parent.
struct ChildDescriptors {
    int input = -1;
    int output = -1;
    int error = -1;
    int events = -1;
};
// The `runAs` path of `spawn`: forks, sets the child up as the options say, drops to
// `options.runAs` and execs. Returns the child's pid once the exec has succeeded; a failure in
// the child is reported back with its step, and the child reaped.
tl::expected<pid_t, PosixSpawnedProcess::SpawnError> forkExecAsUser(const std::string& executable,
                                                                    const std::vector<std::string>& arguments,
                                                                    const PosixSpawnedProcess::Options& options,
                                                                    const ChildDescriptors& descriptors);
// Platform part, async-signal-safe, for a forked child: marks every descriptor from `lowest`
// upwards close-on-exec (not closed, so the child's error report pipe survives until exec).
// `limit` is one more than the highest descriptor that can be open, found before the fork,
// for platforms that must go through the descriptors one by one. Returns 0 or errno.
int markCloseOnExecFrom(int lowest, int limit);
}  // namespace detail

}  // namespace ql
