#include "QLSupport/PosixSpawnedProcess.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

using namespace std::chrono_literals;
using ql::PosixSpawnedProcess;
using ExitStatus = PosixSpawnedProcess::ExitStatus;

namespace {

tl::expected<PosixSpawnedProcess, PosixSpawnedProcess::SpawnError> sh(const std::string& script,
                                                                        PosixSpawnedProcess::Options options = {}) {
    return PosixSpawnedProcess::spawn("/bin/sh", {"-c", script}, options);
}

// Reads a descriptor to end of file.
std::string readAll(const PosixSpawnedProcess::Descriptor& fd) {
    std::string text;
    char buffer[4096];
    for (;;) {
        ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
        if (n > 0) {
            text.append(buffer, static_cast<std::size_t>(n));
        } else if (n == 0 || errno != EINTR) {
            return text;
        }
    }
}

// Reads until `marker` has arrived (or two seconds passed), so a test knows the child's script
// has got past its set-up.
std::string readUntil(const PosixSpawnedProcess::Descriptor& fd, const std::string& marker) {
    std::string text;
    auto until = std::chrono::steady_clock::now() + 2s;
    while (text.find(marker) == std::string::npos && std::chrono::steady_clock::now() < until) {
        pollfd p{fd.get(), POLLIN, 0};
        if (::poll(&p, 1, 100) <= 0) continue;
        char buffer[256];
        ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
        if (n <= 0) break;
        text.append(buffer, static_cast<std::size_t>(n));
    }
    return text;
}

// The state letter of /proc/<pid>/stat ('R', 'S', 'T', 'Z'...), or 0 once the process is gone.
char processState(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!stat || !std::getline(stat, line)) return 0;
    auto close = line.rfind(')');
    return close != std::string::npos && close + 2 < line.size() ? line[close + 2] : 0;
}

bool waitForState(pid_t pid, auto predicate) {
    auto until = std::chrono::steady_clock::now() + 2s;
    while (std::chrono::steady_clock::now() < until) {
        if (predicate(processState(pid))) return true;
        std::this_thread::sleep_for(10ms);
    }
    return predicate(processState(pid));
}

TEST(PosixSpawnedProcessTest, EventPipeOnDescriptorThreeStaysApartFromStdoutAndStderr) {
    auto process = sh("printf 'plain output'; printf 'a warning' >&2; "
                      "printf '{\"type\":\"progress\"}\\n{\"type\":\"done\"}\\n' >&3; exit 4");
    ASSERT_TRUE(process) << process.error().message();
    ASSERT_GT(process->pid, 0);
    for (const auto* fd : {&process->stdoutHandle, &process->stderrHandle, &process->ndjsonHandle}) {
        EXPECT_GT(fd->get(), 2);
        EXPECT_TRUE(::fcntl(fd->get(), F_GETFD) & FD_CLOEXEC);
    }
    EXPECT_FALSE(process->stdinHandle.valid());
    EXPECT_EQ(readAll(process->ndjsonHandle), "{\"type\":\"progress\"}\n{\"type\":\"done\"}\n");
    EXPECT_EQ(readAll(process->stdoutHandle), "plain output");
    EXPECT_EQ(readAll(process->stderrHandle), "a warning");
    EXPECT_EQ(process->wait(), (ExitStatus{4, false, 0}));
    EXPECT_TRUE(process->reaped());
    EXPECT_EQ(process->interrupt(), tl::unexpected(ESRCH)) << "a reaped pid must not be signalled";
}

TEST(PosixSpawnedProcessTest, ChildSeesOnlyDescriptorsZeroToThree) {
    // Ours without close-on-exec, to show that the spawn itself closes everything above 3.
    int leaky = ::open("/dev/null", O_RDONLY);
    ASSERT_GE(leaky, 0);
    struct Case {
        bool eventPipe;
        const char* expected;
    };
    for (auto c : {Case{true, "0\n1\n2\n3\n"}, Case{false, "0\n1\n2\n"}}) {
        SCOPED_TRACE(c.eventPipe ? "with the event pipe" : "without the event pipe");
        PosixSpawnedProcess::Options options;
        options.eventPipe = c.eventPipe;
        auto process = sh("ls /proc/$$/fd", options);
        ASSERT_TRUE(process) << process.error().message();
        EXPECT_EQ(readAll(process->stdoutHandle), c.expected);
        EXPECT_EQ(process->wait(), (ExitStatus{0, false, 0}));
    }
    ::close(leaky);
}

TEST(PosixSpawnedProcessTest, StandardInputEnvironmentAndWorkingDirectory) {
    PosixSpawnedProcess::Options options;
    options.standardInputPipe = true;
    options.environment = std::vector<std::string>{"QL_MARK=set here", "PATH=/usr/bin:/bin"};
    options.workingDirectory = "/proc";
    auto process = sh("read line; printf '%s|%s|%s|%s' \"$line\" \"$QL_MARK\" \"$(pwd)\" \"${HOME:-unset}\"", options);
    ASSERT_TRUE(process) << process.error().message();
    ASSERT_TRUE(process->stdinHandle.valid());
    const std::string line = "typed\n";
    ASSERT_EQ(::write(process->stdinHandle.get(), line.data(), line.size()), static_cast<ssize_t>(line.size()));
    process->stdinHandle.reset();
    EXPECT_EQ(readAll(process->stdoutHandle), "typed|set here|/proc|unset");
    EXPECT_EQ(process->wait(), (ExitStatus{0, false, 0}));

    auto quiet = sh("cat; echo end");
    ASSERT_TRUE(quiet);
    EXPECT_EQ(readAll(quiet->stdoutHandle), "end\n") << "without a pipe, standard input is /dev/null";
    quiet->wait();
}

struct SignalCase {
    const char* name;
    const char* script;
    bool expectInterruptToEnd;
};

TEST(PosixSpawnedProcessTest, InterruptAndEscalationToKill) {
    const SignalCase cases[] = {
        {"honours SIGINT", "echo ready; exec sleep 30", true},
        {"ignores SIGINT", "trap '' INT; echo ready; exec sleep 30", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto process = sh(c.script);
        ASSERT_TRUE(process) << process.error().message();
        ASSERT_EQ(readUntil(process->stdoutHandle, "ready"), "ready\n");
        ASSERT_TRUE(process->interrupt());
        if (c.expectInterruptToEnd) {
            EXPECT_EQ(process->wait(), (ExitStatus{130, true, SIGINT}));
            continue;
        }
        std::this_thread::sleep_for(300ms);
        auto still = process->tryWait();
        ASSERT_TRUE(still);
        EXPECT_FALSE(still->has_value()) << "the child should have ignored SIGINT";
        ASSERT_TRUE(process->kill());
        EXPECT_EQ(process->wait(), (ExitStatus{137, true, SIGKILL}));
    }
}

TEST(PosixSpawnedProcessTest, ChildStartsWithDefaultSignalsWhateverWeIgnoreOrBlock) {
    // A server often ignores SIGINT and SIGPIPE and blocks others; its children must not.
    struct sigaction ignore {}, oldInt{}, oldPipe{};
    ignore.sa_handler = SIG_IGN;
    ::sigaction(SIGINT, &ignore, &oldInt);
    ::sigaction(SIGPIPE, &ignore, &oldPipe);
    sigset_t term, oldMask;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &term, &oldMask);

    auto process = sh("echo ready; exec sleep 30");
    ::pthread_sigmask(SIG_SETMASK, &oldMask, nullptr);
    ::sigaction(SIGINT, &oldInt, nullptr);
    ::sigaction(SIGPIPE, &oldPipe, nullptr);

    ASSERT_TRUE(process) << process.error().message();
    ASSERT_EQ(readUntil(process->stdoutHandle, "ready"), "ready\n");
    ASSERT_TRUE(process->interrupt());
    EXPECT_EQ(process->wait(), (ExitStatus{130, true, SIGINT}));

    auto terminated = sh("echo ready; exec sleep 30");
    ASSERT_TRUE(terminated);
    ASSERT_EQ(readUntil(terminated->stdoutHandle, "ready"), "ready\n");
    ASSERT_TRUE(terminated->sendSignal(SIGTERM));
    EXPECT_EQ(terminated->wait(), (ExitStatus{143, true, SIGTERM}));
}

TEST(PosixSpawnedProcessTest, StopAndResumeShowInTheChildState) {
    auto process = PosixSpawnedProcess::spawn("/bin/sleep", {"30"});
    ASSERT_TRUE(process) << process.error().message();
    const pid_t pid = process->pid;
    ASSERT_TRUE(waitForState(pid, [](char s) { return s == 'S' || s == 'R'; }));

    ASSERT_TRUE(process->stop());
    EXPECT_TRUE(waitForState(pid, [](char s) { return s == 'T'; })) << "state " << processState(pid);
    auto stopped = process->tryWait();
    ASSERT_TRUE(stopped);
    EXPECT_FALSE(stopped->has_value()) << "a stopped child has not ended";

    ASSERT_TRUE(process->resume());
    EXPECT_TRUE(waitForState(pid, [](char s) { return s == 'S' || s == 'R'; })) << "state " << processState(pid);

    ASSERT_TRUE(process->kill());
    EXPECT_EQ(process->wait(), (ExitStatus{137, true, SIGKILL}));
}

TEST(PosixSpawnedProcessTest, SpawnFailuresNameTheExecutable) {
    char dirPattern[] = "/tmp/ql-spawn-XXXXXX";
    std::filesystem::path dir = ::mkdtemp(dirPattern);
    auto plain = dir / "plain";
    std::ofstream(plain) << "#!/bin/sh\n";
    struct Case {
        std::string executable;
        int code;
    };
    const Case cases[] = {{"/nonexistent/qlcopy", ENOENT}, {dir.string(), EACCES}, {plain.string(), EACCES}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.executable);
        auto process = PosixSpawnedProcess::spawn(c.executable, {"--version"});
        ASSERT_FALSE(process);
        EXPECT_EQ(process.error(), PosixSpawnedProcess::SpawnError::spawnFailed(c.code, c.executable));
        EXPECT_NE(process.error().message().find(c.executable), std::string::npos);
    }
    std::filesystem::remove_all(dir);
}

TEST(PosixSpawnedProcessTest, DestructionLeavesNoZombie) {
    pid_t exited = -1;
    {
        auto process = PosixSpawnedProcess::spawn("/bin/true", {});
        ASSERT_TRUE(process);
        exited = process->pid;
        ASSERT_TRUE(waitForState(exited, [](char s) { return s == 'Z'; }));
    }
    EXPECT_EQ(processState(exited), 0) << "an exited child is reaped when its process object goes";

    pid_t running = -1;
    {
        auto process = PosixSpawnedProcess::spawn("/bin/sleep", {"0.3"});
        ASSERT_TRUE(process);
        running = process->pid;
    }
    EXPECT_NE(processState(running), 0) << "a running child is left to run";
    EXPECT_TRUE(waitForState(running, [](char s) { return s == 0; })) << "and reaped when it ends";
}

}  // namespace
