#include "QLSupport/PosixSpawnedProcess.h"

#include "QLSupport/Log.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fmt/format.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <thread>
#include <utility>

extern char** environ;

namespace ql {
namespace {

constexpr const char* kTag = "spawn";

std::string describe(int code) { return fmt::format("{} (errno={})", std::strerror(code), code); }

// A pipe whose ends are both close-on-exec and numbered above 3, so that no end can be
// clobbered by (or be the same as) one of the child's descriptors 0–3 while the file actions
// run.
struct Pipe {
    PosixSpawnedProcess::Descriptor readEnd;
    PosixSpawnedProcess::Descriptor writeEnd;
};

int raiseAboveThree(PosixSpawnedProcess::Descriptor& d) {
    if (d.get() > 3) return 0;
    int moved = ::fcntl(d.get(), F_DUPFD_CLOEXEC, 4);
    if (moved < 0) return errno;
    d.reset(moved);
    return 0;
}

int openPipe(Pipe& pipe) {
    int fds[2];
    if (int rc = detail::makeCloexecPipe(fds); rc != 0) return rc;
    pipe.readEnd.reset(fds[0]);
    pipe.writeEnd.reset(fds[1]);
    if (int rc = raiseAboveThree(pipe.readEnd); rc != 0) return rc;
    return raiseAboveThree(pipe.writeEnd);
}

// Owns the spawn file actions and attributes for the length of one spawn.
struct SpawnSetup {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    bool actionsReady = false;
    bool attributesReady = false;
    ~SpawnSetup() {
        if (actionsReady) posix_spawn_file_actions_destroy(&actions);
        if (attributesReady) posix_spawnattr_destroy(&attributes);
    }
};

tl::unexpected<PosixSpawnedProcess::SpawnError> fileActionFailure(const std::string& operation, int code) {
    Log::f(kTag, "posix_spawn_file_actions{} failed: {}", operation, describe(code));
    return tl::unexpected(PosixSpawnedProcess::SpawnError::fileActionsFailed(operation, code));
}

tl::unexpected<PosixSpawnedProcess::SpawnError> attributeFailure(const std::string& operation, int code) {
    Log::f(kTag, "posix_{} failed: {}", operation, describe(code));
    return tl::unexpected(PosixSpawnedProcess::SpawnError::fileActionsFailed(operation, code));
}

}  // namespace

detail::ExecVectors detail::ExecVectors::of(const std::string& executable, const std::vector<std::string>& arguments,
                                            const std::optional<std::vector<std::string>>& environment) {
    ExecVectors out;
    out.argv.reserve(arguments.size() + 2);
    out.argv.push_back(const_cast<char*>(executable.c_str()));
    for (const auto& a : arguments) out.argv.push_back(const_cast<char*>(a.c_str()));
    out.argv.push_back(nullptr);
    if (environment) {
        out.envp.reserve(environment->size() + 1);
        for (const auto& e : *environment) out.envp.push_back(const_cast<char*>(e.c_str()));
        out.envp.push_back(nullptr);
        out.environment = out.envp.data();
    } else {
        out.environment = environ;
    }
    return out;
}

void PosixSpawnedProcess::Descriptor::reset(int fd) {
    if (fd_ >= 0 && fd_ != fd) ::close(fd_);
    fd_ = fd;
}

std::string PosixSpawnedProcess::SpawnError::message() const {
    switch (kind) {
        case Kind::pipeFailed:
            return fmt::format("Could not create a pipe for a child process: {}.", describe(code));
        case Kind::fileActionsFailed:
            if (operation.rfind("spawnattr", 0) == 0) {
                return fmt::format("Could not prepare a child process: posix_{} failed: {}.", operation,
                                   describe(code));
            }
            return fmt::format("Could not prepare a child process: posix_spawn_file_actions{} failed: {}.",
                               operation, describe(code));
        case Kind::spawnFailed:
            return fmt::format("Could not start {}: {}.", executable, describe(code));
        case Kind::startAsUserFailed:
            return fmt::format("Could not start {} as user {}: {}.", executable, user, operation);
    }
    return "Could not start a child process.";
}

tl::expected<PosixSpawnedProcess, PosixSpawnedProcess::SpawnError> PosixSpawnedProcess::spawn(
    const std::string& executable, const std::vector<std::string>& arguments, const Options& options) {
    Pipe out, err, events, input;
    if (int rc = openPipe(out); rc != 0) return tl::unexpected(SpawnError::pipeFailed(rc));
    if (int rc = openPipe(err); rc != 0) return tl::unexpected(SpawnError::pipeFailed(rc));
    if (options.eventPipe) {
        if (int rc = openPipe(events); rc != 0) return tl::unexpected(SpawnError::pipeFailed(rc));
    }
    if (options.standardInputPipe) {
        if (int rc = openPipe(input); rc != 0) return tl::unexpected(SpawnError::pipeFailed(rc));
        // We feed the child with poll(); a full pipe must never block the writer.
        int flags = ::fcntl(input.writeEnd.get(), F_GETFL);
        if (flags < 0 || ::fcntl(input.writeEnd.get(), F_SETFL, flags | O_NONBLOCK) < 0) {
            return tl::unexpected(SpawnError::pipeFailed(errno));
        }
    }

    auto adopt = [&](pid_t pid) {
        PosixSpawnedProcess process;
        process.pid = pid;
        process.executable_ = executable;
        process.ownProcessGroup_ = options.ownProcessGroup;
        process.stdoutHandle = std::move(out.readEnd);
        process.stderrHandle = std::move(err.readEnd);
        process.ndjsonHandle = std::move(events.readEnd);
        process.stdinHandle = std::move(input.writeEnd);
        // The child's ends close when the pipes go out of scope: only the child holds them
        // now, so end of file on a read end means every writer has gone.
        return process;
    };

    if (options.runAs) {
        auto started = detail::forkExecAsUser(
            executable, arguments, options,
            {input.readEnd.get(), out.writeEnd.get(), err.writeEnd.get(), events.writeEnd.get()});
        if (!started) return tl::unexpected(started.error());
        return adopt(*started);
    }

    SpawnSetup setup;
    if (int rc = posix_spawn_file_actions_init(&setup.actions); rc != 0) return fileActionFailure("_init", rc);
    setup.actionsReady = true;
    auto* fa = &setup.actions;

    if (options.standardInputPipe) {
        if (int rc = posix_spawn_file_actions_adddup2(fa, input.readEnd.get(), 0); rc != 0) {
            return fileActionFailure("_adddup2", rc);
        }
    } else if (int rc = posix_spawn_file_actions_addopen(fa, 0, "/dev/null", O_RDONLY, 0); rc != 0) {
        return fileActionFailure("_addopen", rc);
    }
    if (int rc = posix_spawn_file_actions_adddup2(fa, out.writeEnd.get(), 1); rc != 0) {
        return fileActionFailure("_adddup2", rc);
    }
    if (int rc = posix_spawn_file_actions_adddup2(fa, err.writeEnd.get(), 2); rc != 0) {
        return fileActionFailure("_adddup2", rc);
    }
    if (options.eventPipe) {
        if (int rc = posix_spawn_file_actions_adddup2(fa, events.writeEnd.get(), 3); rc != 0) {
            return fileActionFailure("_adddup2", rc);
        }
    }
    // Close both ends of every pipe in the child: the copies it needs now live on 0–3.
    for (const Pipe* p : {&out, &err, &events, &input}) {
        for (const Descriptor* d : {&p->readEnd, &p->writeEnd}) {
            if (!d->valid()) continue;
            if (int rc = posix_spawn_file_actions_addclose(fa, d->get()); rc != 0) {
                return fileActionFailure("_addclose", rc);
            }
        }
    }

    short flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
    if (options.ownProcessGroup) flags |= POSIX_SPAWN_SETPGROUP;
    {
        std::string operation;
        if (int rc = detail::closeDescriptorsFrom(setup.actions, flags, options.eventPipe ? 4 : 3, operation);
            rc != 0) {
            return fileActionFailure(operation, rc);
        }
    }
    if (options.workingDirectory) {
        if (int rc = posix_spawn_file_actions_addchdir_np(fa, options.workingDirectory->c_str()); rc != 0) {
            return fileActionFailure("_addchdir_np", rc);
        }
    }

    if (int rc = posix_spawnattr_init(&setup.attributes); rc != 0) return attributeFailure("spawnattr_init", rc);
    setup.attributesReady = true;
    // The child starts with no blocked signals and default handling of the signals a server
    // commonly ignores or blocks (SIGPIPE above all), whatever the spawning thread had.
    sigset_t none;
    sigemptyset(&none);
    if (int rc = posix_spawnattr_setsigmask(&setup.attributes, &none); rc != 0) {
        return attributeFailure("spawnattr_setsigmask", rc);
    }
    sigset_t defaults;
    sigemptyset(&defaults);
    for (int s : detail::kSignalsResetInChild) sigaddset(&defaults, s);
    if (int rc = posix_spawnattr_setsigdefault(&setup.attributes, &defaults); rc != 0) {
        return attributeFailure("spawnattr_setsigdefault", rc);
    }
    if (options.ownProcessGroup) {
        if (int rc = posix_spawnattr_setpgroup(&setup.attributes, 0); rc != 0) {
            return attributeFailure("spawnattr_setpgroup", rc);
        }
    }
    if (int rc = posix_spawnattr_setflags(&setup.attributes, flags); rc != 0) {
        return attributeFailure("spawnattr_setflags", rc);
    }

    auto vectors = detail::ExecVectors::of(executable, arguments, options.environment);

    pid_t pid = -1;
    int rc = posix_spawn(&pid, executable.c_str(), &setup.actions, &setup.attributes, vectors.argv.data(),
                         vectors.environment);
    if (rc != 0) return tl::unexpected(SpawnError::spawnFailed(rc, executable));
    return adopt(pid);
}

PosixSpawnedProcess::PosixSpawnedProcess(PosixSpawnedProcess&& other) noexcept
    : pid(std::exchange(other.pid, -1)),
      stdoutHandle(std::move(other.stdoutHandle)),
      stderrHandle(std::move(other.stderrHandle)),
      ndjsonHandle(std::move(other.ndjsonHandle)),
      stdinHandle(std::move(other.stdinHandle)),
      executable_(std::move(other.executable_)),
      ownProcessGroup_(other.ownProcessGroup_),
      status_(std::exchange(other.status_, std::nullopt)) {}

PosixSpawnedProcess& PosixSpawnedProcess::operator=(PosixSpawnedProcess&& other) noexcept {
    if (this == &other) return *this;
    abandon();
    pid = std::exchange(other.pid, -1);
    stdoutHandle = std::move(other.stdoutHandle);
    stderrHandle = std::move(other.stderrHandle);
    ndjsonHandle = std::move(other.ndjsonHandle);
    stdinHandle = std::move(other.stdinHandle);
    executable_ = std::move(other.executable_);
    ownProcessGroup_ = other.ownProcessGroup_;
    status_ = std::exchange(other.status_, std::nullopt);
    return *this;
}

PosixSpawnedProcess::~PosixSpawnedProcess() { abandon(); }

void PosixSpawnedProcess::abandon() {
    if (pid <= 0 || status_) return;
    auto now = tryWait();
    if (now && now->has_value()) return;
    // Still running: reap it in the background whenever it ends.
    pid_t child = pid;
    pid = -1;
    try {
        std::thread([child] {
            int status = 0;
            while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
            }
        }).detach();
    } catch (const std::system_error& e) {
        Log::f(kTag, "could not start a reaper for pid {}: {}", child, e.what());
    }
}

tl::expected<void, int> PosixSpawnedProcess::sendSignal(int signal) const {
    if (pid <= 0 || status_) return tl::unexpected(ESRCH);
    if (::kill(pid, signal) != 0) return tl::unexpected(errno);
    return {};
}

tl::expected<void, int> PosixSpawnedProcess::signalGroup(int signal) const {
    if (!ownProcessGroup_) return tl::unexpected(EPERM);
    if (pid <= 0 || status_) return tl::unexpected(ESRCH);
    if (::kill(-pid, signal) != 0) return tl::unexpected(errno);
    return {};
}

PosixSpawnedProcess::ExitStatus PosixSpawnedProcess::decodeStatus(int waitStatus) {
    if (WIFSIGNALED(waitStatus)) {
        int s = WTERMSIG(waitStatus);
        return {128 + s, true, s};
    }
    if (WIFEXITED(waitStatus)) return {WEXITSTATUS(waitStatus), false, 0};
    return {waitStatus, false, 0};
}

tl::expected<std::optional<PosixSpawnedProcess::ExitStatus>, int> PosixSpawnedProcess::tryWait() {
    if (status_) return status_;
    if (pid <= 0) return tl::unexpected(ECHILD);
    for (;;) {
        int status = 0;
        pid_t r = ::waitpid(pid, &status, WNOHANG);
        if (r == pid) {
            status_ = decodeStatus(status);
            return status_;
        }
        if (r == 0) return std::optional<ExitStatus>{};
        if (errno == EINTR) continue;
        return tl::unexpected(errno);
    }
}

tl::expected<PosixSpawnedProcess::ExitStatus, int> PosixSpawnedProcess::wait() {
    if (status_) return *status_;
    if (pid <= 0) return tl::unexpected(ECHILD);
    for (;;) {
        int status = 0;
        pid_t r = ::waitpid(pid, &status, 0);
        if (r == pid) {
            status_ = decodeStatus(status);
            return *status_;
        }
        if (errno == EINTR) continue;
        return tl::unexpected(errno);
    }
}

}  // namespace ql
