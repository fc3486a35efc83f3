#include "QLSupport/ShellRunner.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

using namespace std::chrono_literals;
using ql::BlockingPool;
using ql::CommandControl;
using ql::LiveShellRunner;
using ql::ShellCommand;
using ql::ShellRunner;
using Kind = ShellRunner::ShellError::Kind;

namespace {

ShellCommand sh(std::string script, std::optional<std::string> input = std::nullopt) {
    ShellCommand c;
    c.executable = "/bin/sh";
    c.arguments = {"-c", std::move(script)};
    c.standardInput = std::move(input);
    return c;
}

double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// A scratch directory for pid files, removed afterwards.
struct ScratchDir {
    std::filesystem::path path;
    ScratchDir() {
        std::string pattern = (std::filesystem::temp_directory_path() / "ql-shell-XXXXXX").string();
        path = ::mkdtemp(pattern.data());
    }
    ~ScratchDir() { std::filesystem::remove_all(path); }
};

pid_t readPid(const std::filesystem::path& file) {
    std::ifstream in(file);
    pid_t pid = -1;
    in >> pid;
    return pid;
}

// True once the process is gone or a zombie (a container's init may be slow to reap).
bool processEnded(pid_t pid, std::chrono::milliseconds within) {
    auto until = std::chrono::steady_clock::now() + within;
    for (;;) {
        std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
        std::string line;
        if (!stat || !std::getline(stat, line)) return true;
        auto close = line.rfind(')');
        if (close != std::string::npos && close + 2 < line.size() && line[close + 2] == 'Z') return true;
        if (std::chrono::steady_clock::now() > until) return false;
        std::this_thread::sleep_for(20ms);
    }
}

class ShellRunnerTest : public ::testing::Test {
protected:
    BlockingPool pool{2};
    LiveShellRunner::Options options() {
        LiveShellRunner::Options o;
        o.drainLimit = 300ms;
        o.terminationGrace = 300ms;
        return o;
    }
};

struct CompletionCase {
    const char* name;
    ShellCommand command;
    ShellRunner::Result expected;
};

TEST_F(ShellRunnerTest, RunsToCompletionAndCapturesEachStream) {
    const std::string big(1 << 20, 'q');
    const CompletionCase cases[] = {
        {"separate streams", sh("printf out; printf err >&2; printf more"), {0, "outmore", "err"}},
        {"non-zero exit", sh("echo bad >&2; exit 7"), {7, "", "bad\n"}},
        {"killed by a signal", sh("kill -9 $$"), {137, "", ""}},
        {"arguments are not split or expanded",
         ShellCommand{"/bin/echo", {"a b", "$HOME", "*", ""}, std::nullopt, std::nullopt, nullptr, std::nullopt},
         {0, "a b $HOME * \n", ""}},
        {"standard input", sh("cat; echo done >&2", "pass word\n"), {0, "pass word\n", "done\n"}},
        {"no standard input reads as empty", sh("cat; echo eof"), {0, "eof\n", ""}},
        {"child closes standard input unread", sh("exec 0<&-; echo ok", big + big), {0, "ok\n", ""}},
        {"heavy standard error", sh("head -c 3000000 /dev/zero | tr '\\0' e >&2; echo fine"),
         {0, "fine\n", std::string(3000000, 'e')}},
    };
    LiveShellRunner runner(pool, options());
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto outcome = runner.runBlocking(c.command);
        ASSERT_TRUE(outcome) << outcome.error().message();
        EXPECT_EQ(outcome->exitCode, c.expected.exitCode);
        EXPECT_EQ(outcome->stdout, c.expected.stdout);
        EXPECT_EQ(outcome->stderr, c.expected.stderr);
    }
}

TEST_F(ShellRunnerTest, LargeStandardInputIsEchoedBackWithoutDeadlock) {
    std::string input;
    input.reserve(3 << 20);
    for (int i = 0; input.size() < (3u << 20); ++i) input += std::to_string(i) + '\n';
    ShellCommand command{"/bin/cat", {}, input, 10s, nullptr};
    LiveShellRunner runner(pool, options());
    auto outcome = runner.runBlocking(command);
    ASSERT_TRUE(outcome) << outcome.error().message();
    EXPECT_EQ(outcome->exitCode, 0);
    EXPECT_EQ(outcome->stdout.size(), input.size());
    EXPECT_TRUE(outcome->stdout == input);
}

TEST_F(ShellRunnerTest, RequireSuccessTurnsAFailingStatusIntoNonZeroExit) {
    LiveShellRunner runner(pool, options());
    auto failing = ShellRunner::requireSuccess(runner.runBlocking(sh("echo 'no such disk' >&2; exit 1")), "/bin/sh");
    ASSERT_FALSE(failing);
    EXPECT_EQ(failing.error(), ShellRunner::ShellError::nonZeroExit("/bin/sh", 1, "no such disk\n"));
    EXPECT_EQ(failing.error().message(), "/bin/sh failed with exit status 1: no such disk");

    auto passing = ShellRunner::requireSuccess(runner.runBlocking(sh("echo ok")), "/bin/sh");
    ASSERT_TRUE(passing);
    EXPECT_EQ(passing->stdout, "ok\n");
}

TEST_F(ShellRunnerTest, LaunchFailuresAreReportedNotThrown) {
    ScratchDir dir;
    const auto plainFile = dir.path / "not-executable";
    std::ofstream(plainFile) << "#!/bin/sh\necho hi\n";
    const std::string cases[] = {"/nonexistent/ql-tool", dir.path.string(), plainFile.string()};
    LiveShellRunner runner(pool, options());
    for (const auto& executable : cases) {
        SCOPED_TRACE(executable);
        auto outcome = runner.runBlocking(ShellCommand{executable, {"x"}, std::nullopt, std::nullopt, nullptr, std::nullopt});
        ASSERT_FALSE(outcome);
        EXPECT_EQ(outcome.error().kind, Kind::launchFailed);
        EXPECT_NE(outcome.error().message().find(executable), std::string::npos) << outcome.error().message();
    }
}

struct TimeoutCase {
    const char* name;
    const char* script;  // writes the pid of a process in the group to $1, then lingers
};

TEST_F(ShellRunnerTest, TimeoutStopsTheWholeProcessGroup) {
    const TimeoutCase cases[] = {
        {"obeys SIGTERM", "sleep 30 & echo $! > \"$1\"; wait"},
        {"ignores SIGTERM, needs SIGKILL", "trap '' TERM; sleep 30 & echo $! > \"$1\"; wait"},
    };
    LiveShellRunner runner(pool, options());
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ScratchDir dir;
        auto pidFile = dir.path / "pid";
        ShellCommand command{"/bin/sh", {"-c", c.script, "sh", pidFile.string()}, std::nullopt, 400ms, nullptr};
        auto start = std::chrono::steady_clock::now();
        auto outcome = runner.runBlocking(command);
        double took = secondsSince(start);
        ASSERT_FALSE(outcome);
        EXPECT_EQ(outcome.error(), ShellRunner::ShellError::timedOut("/bin/sh", 0.4));
        EXPECT_EQ(outcome.error().message(), "/bin/sh did not finish within 0.4 seconds and was stopped.");
        EXPECT_GE(took, 0.4);
        EXPECT_LT(took, 5.0);
        pid_t grandchild = readPid(pidFile);
        ASSERT_GT(grandchild, 0);
        EXPECT_TRUE(processEnded(grandchild, 3s)) << "the background sleep survived the timeout";
    }
}

TEST_F(ShellRunnerTest, ZeroTimeoutMeansNoLimit) {
    LiveShellRunner::Options o = options();
    o.defaultTimeout = 100ms;
    LiveShellRunner runner(pool, o);
    auto limited = runner.runBlocking(sh("sleep 0.5"));
    ASSERT_FALSE(limited);
    EXPECT_EQ(limited.error().kind, Kind::timedOut);

    auto command = sh("sleep 0.5; echo slept");
    command.timeout = 0ms;
    auto unlimited = runner.runBlocking(command);
    ASSERT_TRUE(unlimited) << unlimited.error().message();
    EXPECT_EQ(unlimited->stdout, "slept\n");
}

TEST_F(ShellRunnerTest, CancellationStopsARunningCommand) {
    LiveShellRunner runner(pool, options());
    for (bool cancelFirst : {false, true}) {
        SCOPED_TRACE(cancelFirst ? "cancelled before it started" : "cancelled while running");
        auto command = sh("trap '' TERM; sleep 30");
        command.control = std::make_shared<CommandControl>();
        if (cancelFirst) command.control->cancel();
        auto start = std::chrono::steady_clock::now();
        std::thread canceller([control = command.control] {
            std::this_thread::sleep_for(200ms);
            control->cancel();
        });
        auto outcome = runner.runBlocking(command);
        canceller.join();
        ASSERT_FALSE(outcome);
        EXPECT_EQ(outcome.error(), ShellRunner::ShellError::cancelled("/bin/sh"));
        // SIGTERM is ignored here, so the grace period passes before SIGKILL.
        EXPECT_LT(secondsSince(start), 3.0);
    }
}

// The coroutine form leaves the event loop free while the command runs, and cancellation
// from another coroutine on that loop reaches it.
asio::awaitable<void> runCommand(ShellRunner& runner, ShellCommand command, ShellRunner::Outcome* out, bool* done) {
    *out = co_await runner.run(std::move(command));
    *done = true;
}

asio::awaitable<void> tickUntil(bool* done, int* ticks) {
    asio::steady_timer timer(co_await asio::this_coro::executor);
    while (!*done) {
        timer.expires_after(20ms);
        co_await timer.async_wait(asio::use_awaitable);
        ++*ticks;
    }
}

asio::awaitable<void> cancelAfter(std::shared_ptr<CommandControl> control, std::chrono::milliseconds delay) {
    asio::steady_timer timer(co_await asio::this_coro::executor, delay);
    co_await timer.async_wait(asio::use_awaitable);
    control->cancel();
}

TEST_F(ShellRunnerTest, CoroutineFormKeepsTheLoopRunningAndHonoursCancellation) {
    LiveShellRunner runner(pool, options());
    asio::io_context io;

    ShellRunner::Outcome finished;
    bool done = false;
    int ticks = 0;
    asio::co_spawn(io, runCommand(runner, sh("sleep 0.4; echo awake"), &finished, &done), asio::detached);
    asio::co_spawn(io, tickUntil(&done, &ticks), asio::detached);
    io.run();
    ASSERT_TRUE(finished) << finished.error().message();
    EXPECT_EQ(finished->stdout, "awake\n");
    EXPECT_GE(ticks, 5) << "the event loop was blocked while the command ran";

    io.restart();
    auto command = sh("sleep 30");
    command.control = std::make_shared<CommandControl>();
    ShellRunner::Outcome cancelled;
    done = false;
    auto start = std::chrono::steady_clock::now();
    asio::co_spawn(io, runCommand(runner, command, &cancelled, &done), asio::detached);
    asio::co_spawn(io, cancelAfter(command.control, 150ms), asio::detached);
    io.run();
    ASSERT_FALSE(cancelled);
    EXPECT_EQ(cancelled.error().kind, Kind::cancelled);
    EXPECT_LT(secondsSince(start), 2.0);
}

TEST_F(ShellRunnerTest, OutputHeldOpenByABackgroundProcessEndsAsDrainStalled) {
    LiveShellRunner runner(pool, options());
    struct DrainCase {
        const char* name;
        const char* script;
        bool stalls;
    };
    const DrainCase cases[] = {
        {"grandchild keeps stdout", "sleep 30 & echo $! > \"$1\"; echo started", true},
        {"grandchild keeps stderr", "sleep 30 >/dev/null & echo $! > \"$1\"; echo started", true},
        {"grandchild let go of both", "sleep 30 >/dev/null 2>&1 & echo $! > \"$1\"; echo started", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ScratchDir dir;
        auto pidFile = dir.path / "pid";
        ShellCommand command{"/bin/sh", {"-c", c.script, "sh", pidFile.string()}, std::nullopt, 10s, nullptr};
        auto start = std::chrono::steady_clock::now();
        auto outcome = runner.runBlocking(command);
        double took = secondsSince(start);
        pid_t grandchild = readPid(pidFile);
        if (grandchild > 0) ::kill(grandchild, SIGKILL);
        EXPECT_LT(took, 3.0);
        if (c.stalls) {
            ASSERT_FALSE(outcome);
            EXPECT_EQ(outcome.error(), ShellRunner::ShellError::drainStalled("/bin/sh", 0.3));
            EXPECT_GE(took, 0.3);
        } else {
            ASSERT_TRUE(outcome) << outcome.error().message();
            EXPECT_EQ(outcome->stdout, "started\n");
        }
    }
}

TEST_F(ShellRunnerTest, ChildInheritsOnlyStandardDescriptors) {
    // A descriptor of ours without close-on-exec must still not reach the tool.
    int leaky = ::open("/dev/null", O_RDONLY);
    ASSERT_GE(leaky, 0);
    LiveShellRunner runner(pool, options());
    auto outcome = runner.runBlocking(sh("ls /proc/$$/fd"));
    ::close(leaky);
    ASSERT_TRUE(outcome) << outcome.error().message();
    EXPECT_EQ(outcome->stdout, "0\n1\n2\n");
}

TEST_F(ShellRunnerTest, FakeRecordsCallsAndAnswersInOrder) {
    ql::FakeShellRunner fake;
    fake.enqueueSuccess("first");
    fake.enqueue(tl::unexpected(ShellRunner::ShellError::timedOut("diskutil", 30)));
    fake.setHandler([](const ShellCommand& c) -> ShellRunner::Outcome {
        return ShellRunner::Result{0, c.describe(), ""};
    });
    EXPECT_EQ(fake.runBlocking(ShellCommand{"diskutil", {"list"}, {}, {}, nullptr, std::nullopt})->stdout, "first");
    EXPECT_EQ(fake.runBlocking(ShellCommand{"diskutil", {"info"}, {}, {}, nullptr, std::nullopt}).error().kind, Kind::timedOut);
    EXPECT_EQ(fake.runBlocking(ShellCommand{"hdiutil", {"attach", "a b.dmg"}, "secret", {}, nullptr, std::nullopt})->stdout,
              "hdiutil attach \"a b.dmg\"");
    auto calls = fake.calls();
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[2].standardInput, "secret");
}

}  // namespace
