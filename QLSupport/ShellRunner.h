#pragma once

#include "QLSupport/BlockingPool.h"
#include "QLSupport/UserCredentials.h"

#include <asio.hpp>
#include <tl/expected.hpp>

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace ql {

// A shared cancellation handle for a running command. The owner calls `cancel()`; the runner
// reads the flag under the lock while it waits and stops the command soon after.
class CommandControl {
public:
    void cancel() {
        std::lock_guard guard(lock);
        cancelled = true;
    }
    bool isCancelled() const {
        std::lock_guard guard(lock);
        return cancelled;
    }

    mutable std::mutex lock;
    bool cancelled = false;  // guarded by `lock`
};

// One tool invocation: the executable's path and its argument vector, passed as they are (no
// shell, no word splitting). Secrets travel in `standardInput`, never in the arguments.
struct ShellCommand {
    std::string executable;
    std::vector<std::string> arguments;
    // Bytes written to the child's standard input, which is then closed. Absent: the child
    // reads /dev/null.
    std::optional<std::string> standardInput;
    // Absent: the runner's default timeout. Zero: no time limit.
    std::optional<std::chrono::milliseconds> timeout;
    std::shared_ptr<CommandControl> control;
    // Absent: the tool runs with our own rights. Present: with that user's (the server runs a
    // tool on a job owner's behalf as the owner).
    std::optional<UserCredentials> runAs;

    // "diskutil info -plist disk2", for log lines. Standard input is never shown.
    std::string describe() const;
};

// Runs a tool to completion and returns its exit status and output. An interface, so that
// callers can be tested with `FakeShellRunner`.
class ShellRunner {
public:
    struct Result {
        std::int32_t exitCode = 0;
        std::string stdout;
        std::string stderr;
        friend bool operator==(const Result&, const Result&) = default;
    };

    struct ShellError {
        enum class Kind { launchFailed, nonZeroExit, cancelled, timedOut, drainStalled };
        Kind kind = Kind::launchFailed;
        std::string executable;     // every kind but launchFailed
        std::string detail;         // launchFailed: the message; nonZeroExit: the tool's stderr
        std::int32_t code = 0;      // nonZeroExit
        double seconds = 0;         // timedOut, drainStalled

        static ShellError launchFailed(std::string message) {
            return {Kind::launchFailed, {}, std::move(message), 0, 0};
        }
        static ShellError nonZeroExit(std::string executable, std::int32_t code, std::string stderr) {
            return {Kind::nonZeroExit, std::move(executable), std::move(stderr), code, 0};
        }
        static ShellError cancelled(std::string executable) { return {Kind::cancelled, std::move(executable), {}, 0, 0}; }
        static ShellError timedOut(std::string executable, double seconds) {
            return {Kind::timedOut, std::move(executable), {}, 0, seconds};
        }
        static ShellError drainStalled(std::string executable, double seconds) {
            return {Kind::drainStalled, std::move(executable), {}, 0, seconds};
        }

        // A sentence for logs and failure reports.
        std::string message() const;
        friend bool operator==(const ShellError&, const ShellError&) = default;
    };

    using CommandControl = ql::CommandControl;
    using Outcome = tl::expected<Result, ShellError>;

    virtual ~ShellRunner() = default;

    // Runs the command without blocking the caller's executor.
    virtual asio::awaitable<Outcome> run(ShellCommand command) = 0;
    // The same for callers that are not coroutines; blocks the calling thread.
    virtual Outcome runBlocking(const ShellCommand& command) = 0;

    // For callers that need the tool to succeed: a non-zero exit status becomes
    // `nonZeroExit(executable, code, stderr)`.
    static Outcome requireSuccess(Outcome outcome, const std::string& executable);
    asio::awaitable<Outcome> runChecked(ShellCommand command);
};

// Runs real processes with posix_spawn. The child leads its own process group; on a timeout or
// a cancellation the whole group receives SIGTERM and, if anything is still alive after the
// grace period, SIGKILL. Standard output and standard error are read concurrently to their
// ends while standard input is written, so large input and output cannot deadlock. Once the
// child has exited, the output pipes must reach end of file within the drain limit; a
// background process that inherited them and keeps them open ends the command with
// `drainStalled` (the process itself is left alone).
class LiveShellRunner final : public ShellRunner {
public:
    struct Options {
        // A platform tool that has not finished in five minutes is taken to be hung; callers
        // with longer work (erasing, creating large disk images) pass their own timeout.
        std::chrono::milliseconds defaultTimeout = std::chrono::minutes(5);
        // How long the output pipes may stay open after the child exited.
        std::chrono::milliseconds drainLimit = std::chrono::seconds(2);
        // Between SIGTERM and SIGKILL when stopping a command.
        std::chrono::milliseconds terminationGrace = std::chrono::seconds(1);
        // How often the cancellation flag is looked at.
        std::chrono::milliseconds cancellationPollInterval = std::chrono::milliseconds(50);
    };

    explicit LiveShellRunner(BlockingPool& pool) : LiveShellRunner(pool, Options{}) {}
    LiveShellRunner(BlockingPool& pool, Options options) : pool_(pool), options_(options) {}

    asio::awaitable<Outcome> run(ShellCommand command) override;
    Outcome runBlocking(const ShellCommand& command) override;

    const Options& options() const { return options_; }

private:
    BlockingPool& pool_;
    Options options_;
};

// A scripted runner for tests: records every command and answers with the queued outcomes in
// order, then with `handler` when one is set, and otherwise with a launch failure that names
// the unexpected command.
class FakeShellRunner final : public ShellRunner {
public:
    using Handler = std::function<Outcome(const ShellCommand&)>;

    asio::awaitable<Outcome> run(ShellCommand command) override;
    Outcome runBlocking(const ShellCommand& command) override;

    void enqueue(Outcome outcome);
    void enqueueSuccess(std::string stdout, std::int32_t exitCode = 0, std::string stderr = {});
    void setHandler(Handler handler);
    std::vector<ShellCommand> calls() const;

private:
    mutable std::mutex lock_;
    std::deque<Outcome> queued_;
    Handler handler_;
    std::vector<ShellCommand> calls_;
};

}  // namespace ql
