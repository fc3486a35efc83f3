#include "QLSupport/ChildPrivileges.h"
#include "QLSupport/Log.h"
#include "QLSupport/PosixSpawnedProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fmt/format.h>

#include <cerrno>
#include <climits>
#include <cstring>


namespace ql::detail {
namespace {

constexpr const char* kTag = "spawn";

// What a child that failed before exec writes to its report pipe. Eight bytes to a pipe are
// written atomically, so the parent reads all of it or nothing.
struct ChildReport {
    int stage = 0;
    int code = 0;
};

[[noreturn]] void failInChild(int reportFd, ChildStage stage, int code) noexcept {
    ChildReport report{static_cast<int>(stage), code};
    // Nothing more can be done if the parent is gone; the exit status still says 127.
    [[maybe_unused]] ssize_t written = ::write(reportFd, &report, sizeof report);
    ::_exit(127);
}

// Default handling for the signals we reset for every child, and for every signal we handle
// (a handler of ours must never run in the child), then nothing blocked. A failure matters
// only for the signals every child is promised; the others cannot be handled by us anyway.
bool resetSignals() noexcept {
    struct sigaction byDefault {};
    byDefault.sa_handler = SIG_DFL;
    sigemptyset(&byDefault.sa_mask);
    for (int s = 1; s < NSIG; ++s) {
        if (s == SIGKILL || s == SIGSTOP) continue;
        bool promised = false;
        for (int listed : kSignalsResetInChild) promised = promised || listed == s;
        struct sigaction current {};
        if (::sigaction(s, nullptr, &current) != 0) {
            if (promised) return false;
            continue;
        }
        bool handled = (current.sa_flags & SA_SIGINFO) != 0 ||
                       (current.sa_handler != SIG_DFL && current.sa_handler != SIG_IGN);
        if ((promised || handled) && ::sigaction(s, &byDefault, nullptr) != 0 && promised) return false;
    }
    sigset_t none;
    sigemptyset(&none);
    return ::sigprocmask(SIG_SETMASK, &none, nullptr) == 0;
}

// Everything the child uses, made before the fork.
struct ChildPlan {
    const char* executable;
    char* const* argv;
    char* const* envp;
    const char* workingDirectory;  // null: stay where we are
    bool ownProcessGroup;
    ChildDescriptors descriptors;
    int descriptorLimit;
    PrivilegeDrop drop;
    int reportFd;
};

// The forked child. Async-signal-safe calls only; never returns.
[[noreturn]] void runChild(const ChildPlan& plan) noexcept {
    const ChildDescriptors& d = plan.descriptors;
    if (plan.ownProcessGroup && ::setpgid(0, 0) != 0) failInChild(plan.reportFd, ChildStage::processGroup, errno);

    if (d.input >= 0) {
        if (::dup2(d.input, 0) < 0) failInChild(plan.reportFd, ChildStage::descriptors, errno);
    } else {
        int null = ::open("/dev/null", O_RDONLY);
        if (null < 0) failInChild(plan.reportFd, ChildStage::standardInput, errno);
        // A descriptor above 0 is marked close-on-exec below or replaced by the next dup2s.
        if (null != 0 && ::dup2(null, 0) < 0) failInChild(plan.reportFd, ChildStage::descriptors, errno);
    }
    if (::dup2(d.output, 1) < 0 || ::dup2(d.error, 2) < 0 || (d.events >= 0 && ::dup2(d.events, 3) < 0)) {
        failInChild(plan.reportFd, ChildStage::descriptors, errno);
    }
    // Marked rather than closed: the report pipe (already close-on-exec) must stay open until
    // the exec succeeds, and then it closes by itself, which is how the parent learns of it.
    if (int rc = markCloseOnExecFrom(d.events >= 0 ? 4 : 3, plan.descriptorLimit); rc != 0) {
        failInChild(plan.reportFd, ChildStage::closeOnExec, rc);
    }

    ChildStage stage = ChildStage::none;
    if (int rc = dropPrivileges(plan.drop, stage); stage != ChildStage::none) failInChild(plan.reportFd, stage, rc);
    // Entered as the user, so a folder the user may not enter is refused here.
    if (plan.workingDirectory && ::chdir(plan.workingDirectory) != 0) {
        failInChild(plan.reportFd, ChildStage::workingDirectory, errno);
    }
    if (!resetSignals()) failInChild(plan.reportFd, ChildStage::signals, errno);
    ::execve(plan.executable, plan.argv, plan.envp);
    failInChild(plan.reportFd, ChildStage::exec, errno);
}

// Reads the child's report: nothing (end of file: the exec succeeded), a whole report, or -1
// with errno when the pipe could not be read.
int readReport(int fd, ChildReport& report) {
    auto* bytes = reinterpret_cast<char*>(&report);
    std::size_t got = 0;
    while (got < sizeof report) {
        ssize_t n = ::read(fd, bytes + got, sizeof report - got);
        if (n > 0) {
            got += static_cast<std::size_t>(n);
        } else if (n == 0) {
            break;
        } else if (errno != EINTR) {
            return -1;
        }
    }
    return static_cast<int>(got);
}

void reap(pid_t pid) {
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
}

}  // namespace

tl::expected<pid_t, PosixSpawnedProcess::SpawnError> forkExecAsUser(const std::string& executable,
                                                                    const std::vector<std::string>& arguments,
                                                                    const PosixSpawnedProcess::Options& options,
                                                                    const ChildDescriptors& descriptors) {
    using SpawnError = PosixSpawnedProcess::SpawnError;
    const UserCredentials& user = *options.runAs;
    auto failure = [&](std::string what, int code) {
        Log::f(kTag, "could not start {} as {}: {}", executable, user.label(), what);
        return tl::unexpected(SpawnError::startAsUserFailed(std::move(what), code, executable, user.uid));
    };

    // The report pipe's ends are moved above 3 so that the child's dup2s cannot replace them.
    int fds[2];
    if (int rc = makeCloexecPipe(fds); rc != 0) return tl::unexpected(SpawnError::pipeFailed(rc));
    PosixSpawnedProcess::Descriptor reportRead(fds[0]), reportWrite(fds[1]);
    for (auto* end : {&reportRead, &reportWrite}) {
        if (end->get() > 3) continue;
        int moved = ::fcntl(end->get(), F_DUPFD_CLOEXEC, 4);
        if (moved < 0) return tl::unexpected(SpawnError::pipeFailed(errno));
        end->reset(moved);
    }

    auto vectors = detail::ExecVectors::of(executable, arguments, options.environment);
    long openMax = ::sysconf(_SC_OPEN_MAX);

    ChildPlan plan{};
    plan.executable = executable.c_str();
    plan.argv = vectors.argv.data();
    plan.envp = vectors.environment;
    plan.workingDirectory = options.workingDirectory ? options.workingDirectory->c_str() : nullptr;
    plan.ownProcessGroup = options.ownProcessGroup;
    plan.descriptors = descriptors;
    plan.descriptorLimit = openMax > 0 && openMax < INT_MAX ? static_cast<int>(openMax) : 65536;
    plan.drop = preparePrivilegeDrop(user);
    plan.reportFd = reportWrite.get();

    pid_t pid = forkWithSignalsBlocked();
    if (pid == 0) runChild(plan);
    if (pid < 0) {
        int code = errno;
        return failure(fmt::format("fork failed: {} (errno={})", std::strerror(code), code), code);
    }
    reportWrite.reset();

    ChildReport report;
    int got = readReport(reportRead.get(), report);
    if (got == 0) {
        Log::f(kTag, "started {} as {} (pid {})", executable, user.label(), pid);
        return pid;
    }
    if (got != static_cast<int>(sizeof report)) {
        // We cannot tell whether the exec happened; a child we cannot account for is stopped.
        int code = got < 0 ? errno : EIO;
        ::kill(pid, SIGKILL);
        reap(pid);
        return failure(fmt::format("reading the child's report failed: {} (errno={})", std::strerror(code), code),
                       code);
    }
    reap(pid);
    return failure(describeChildFailure(static_cast<ChildStage>(report.stage), report.code), report.code);
}

}  // namespace ql::detail
