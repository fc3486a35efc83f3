#include "QLSupport/ShellRunner.h"

#include "QLSupport/Log.h"
#include "QLSupport/PosixSpawnedProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace ql {
namespace {

constexpr const char* kTag = "ShellRunner";
using SteadyClock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// After SIGKILL, how long we wait for the child to be reaped before giving up on it (a child
// stuck in the kernel, say on a dead disk, cannot die at once); its process object then hands
// it to a background reaper.
constexpr milliseconds kKillWaitLimit{5000};

double seconds(milliseconds d) { return static_cast<double>(d.count()) / 1000.0; }

std::string trimmed(std::string_view text) {
    auto isSpace = [](char c) { return c == ' ' || c == '\n' || c == '\r' || c == '\t'; };
    while (!text.empty() && isSpace(text.front())) text.remove_prefix(1);
    while (!text.empty() && isSpace(text.back())) text.remove_suffix(1);
    return std::string(text);
}

// Writing to a pipe whose reader has gone raises SIGPIPE, which would end the whole server.
// While a command runs, SIGPIPE is blocked in the running thread and any SIGPIPE our writes
// raised is collected before the old mask comes back. (Children start with an empty mask.)
class SigpipeBlock {
public:
    SigpipeBlock() {
        sigemptyset(&pipeOnly_);
        sigaddset(&pipeOnly_, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipeOnly_, &previous_);
    }
    ~SigpipeBlock() {
        collectPending();
        pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
    }
    SigpipeBlock(const SigpipeBlock&) = delete;
    SigpipeBlock& operator=(const SigpipeBlock&) = delete;

    void collectPending() {
        sigset_t pending;
        sigemptyset(&pending);
        if (sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1) {
            int signal = 0;
            sigwait(&pipeOnly_, &signal);
        }
    }

private:
    sigset_t pipeOnly_;
    sigset_t previous_;
};

bool setNonBlocking(int fd) {
    int flags = ::fcntl(fd, F_GETFL);
    return flags >= 0 && ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}

// Reads what is available; closes the descriptor at end of file or on a read error.
void drainAvailable(PosixSpawnedProcess::Descriptor& fd, std::string& into) {
    std::array<char, 65536> buffer;
    for (;;) {
        ssize_t n = ::read(fd.get(), buffer.data(), buffer.size());
        if (n > 0) {
            into.append(buffer.data(), static_cast<std::size_t>(n));
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
        fd.reset();
        return;
    }
}

int pollTimeout(milliseconds wait) {
    return static_cast<int>(std::clamp<milliseconds::rep>(wait.count(), 0, 60'000));
}

}  // namespace

std::string ShellCommand::describe() const {
    std::string text = executable;
    for (const auto& a : arguments) {
        text += ' ';
        bool plain = !a.empty() && a.find_first_of(" \t\n\"'") == std::string::npos;
        text += plain ? a : fmt::format("\"{}\"", a);
    }
    return text;
}

std::string ShellRunner::ShellError::message() const {
    switch (kind) {
        case Kind::launchFailed:
            return detail;
        case Kind::nonZeroExit: {
            auto said = trimmed(detail);
            if (said.empty()) return fmt::format("{} failed with exit status {}.", executable, code);
            return fmt::format("{} failed with exit status {}: {}", executable, code, said);
        }
        case Kind::cancelled:
            return fmt::format("{} was cancelled.", executable);
        case Kind::timedOut:
            return fmt::format("{} did not finish within {:g} seconds and was stopped.", executable, seconds);
        case Kind::drainStalled:
            return fmt::format(
                "{} exited, but a process it left behind still held its output open {:g} seconds later.",
                executable, seconds);
    }
    return "The command failed.";
}

ShellRunner::Outcome ShellRunner::requireSuccess(Outcome outcome, const std::string& executable) {
    if (outcome && outcome->exitCode != 0) {
        return tl::unexpected(ShellError::nonZeroExit(executable, outcome->exitCode, std::move(outcome->stderr)));
    }
    return outcome;
}

asio::awaitable<ShellRunner::Outcome> ShellRunner::runChecked(ShellCommand command) {
    std::string executable = command.executable;
    co_return requireSuccess(co_await run(std::move(command)), executable);
}

asio::awaitable<ShellRunner::Outcome> LiveShellRunner::run(ShellCommand command) {
    // A named closure: g++ 12 copies a closure temporary inside a co_await expression
    // bytewise, which corrupts the strings it captured.
    auto work = [this, command = std::move(command)] { return runBlocking(command); };
    co_return co_await pool_.run(std::move(work));
}

ShellRunner::Outcome LiveShellRunner::runBlocking(const ShellCommand& command) {
    const auto& executable = command.executable;
    const milliseconds timeout = command.timeout.value_or(options_.defaultTimeout);

    PosixSpawnedProcess::Options spawnOptions;
    spawnOptions.standardInputPipe = command.standardInput.has_value();
    spawnOptions.eventPipe = false;
    spawnOptions.ownProcessGroup = true;
    spawnOptions.runAs = command.runAs;

    SigpipeBlock sigpipeBlock;
    auto spawned = PosixSpawnedProcess::spawn(executable, command.arguments, spawnOptions);
    if (!spawned) {
        auto message = spawned.error().message();
        Log::f(kTag, "{}: {}", command.describe(), message);
        return tl::unexpected(ShellError::launchFailed(std::move(message)));
    }
    PosixSpawnedProcess& process = *spawned;

    Result result;
    std::string_view input = command.standardInput ? std::string_view(*command.standardInput) : std::string_view();
    if (input.empty()) process.stdinHandle.reset();
    setNonBlocking(process.stdoutHandle.get());
    setNonBlocking(process.stderrHandle.get());

    enum class Stop { none, timedOut, cancelled };
    Stop stop = Stop::none;
    const auto started = SteadyClock::now();
    const auto deadline = timeout.count() > 0 ? started + timeout : SteadyClock::time_point::max();
    SteadyClock::time_point terminatedAt{};
    SteadyClock::time_point killedAt{};
    bool killed = false;
    std::optional<SteadyClock::time_point> exitedAt;
    milliseconds idleSleep{1};

    auto isCancelled = [&] { return command.control && command.control->isCancelled(); };
    auto stoppedError = [&]() -> Outcome {
        if (stop == Stop::cancelled) return tl::unexpected(ShellError::cancelled(executable));
        return tl::unexpected(ShellError::timedOut(executable, seconds(timeout)));
    };
    auto beginStopping = [&](Stop why, SteadyClock::time_point now) {
        stop = why;
        terminatedAt = now;
        if (why == Stop::cancelled) {
            Log::f(kTag, "cancelling {}", command.describe());
        } else {
            Log::f(kTag, "{} ran past its {:g}-second limit; stopping it", command.describe(), seconds(timeout));
        }
        process.signalGroup(SIGTERM);
        // A stopped process only acts on SIGTERM once it runs again.
        process.signalGroup(SIGCONT);
    };

    for (;;) {
        auto now = SteadyClock::now();
        if (!exitedAt) {
            auto waited = process.tryWait();
            if (!waited) {
                // Someone else reaped our child: we can no longer tell how it ended.
                auto message = fmt::format("Lost track of {}: {}.", executable, std::strerror(waited.error()));
                Log::f(kTag, "{}", message);
                return tl::unexpected(ShellError::launchFailed(std::move(message)));
            }
            if (waited->has_value()) {
                exitedAt = now;
                result.exitCode = (*waited)->code;
                process.stdinHandle.reset();
            }
        }

        if (exitedAt) {
            if (stop != Stop::none) return stoppedError();
            if (!process.stdoutHandle && !process.stderrHandle) return result;
            if (isCancelled()) {
                stop = Stop::cancelled;
                Log::f(kTag, "{} cancelled while its output drained", command.describe());
                return stoppedError();
            }
            if (now - *exitedAt >= options_.drainLimit) {
                Log::f(kTag, "{} exited with status {}, but its output was still open {:g} seconds later",
                       command.describe(), result.exitCode, seconds(options_.drainLimit));
                return tl::unexpected(ShellError::drainStalled(executable, seconds(options_.drainLimit)));
            }
        } else if (stop == Stop::none) {
            if (isCancelled()) {
                beginStopping(Stop::cancelled, now);
            } else if (now >= deadline) {
                beginStopping(Stop::timedOut, now);
            }
        } else if (!killed && now - terminatedAt >= options_.terminationGrace) {
            Log::f(kTag, "{} still running after SIGTERM; sending SIGKILL", command.describe());
            process.signalGroup(SIGKILL);
            killed = true;
            killedAt = now;
        } else if (killed && now - killedAt >= kKillWaitLimit) {
            Log::f(kTag, "{} did not end after SIGKILL; leaving it to a background reaper", command.describe());
            return stoppedError();
        }

        // How long to wait for something to happen.
        milliseconds wait = options_.cancellationPollInterval;
        auto until = [&](SteadyClock::time_point t) {
            wait = std::min(wait, std::chrono::ceil<milliseconds>(t - now));
        };
        if (exitedAt) {
            until(*exitedAt + options_.drainLimit);
        } else if (stop == Stop::none) {
            if (deadline != SteadyClock::time_point::max()) until(deadline);
        } else if (!killed) {
            until(terminatedAt + options_.terminationGrace);
        }

        std::array<pollfd, 3> fds{};
        std::size_t count = 0;
        int outIndex = -1, errIndex = -1, inIndex = -1;
        if (process.stdoutHandle) {
            outIndex = static_cast<int>(count);
            fds[count++] = {process.stdoutHandle.get(), POLLIN, 0};
        }
        if (process.stderrHandle) {
            errIndex = static_cast<int>(count);
            fds[count++] = {process.stderrHandle.get(), POLLIN, 0};
        }
        if (process.stdinHandle) {
            inIndex = static_cast<int>(count);
            fds[count++] = {process.stdinHandle.get(), POLLOUT, 0};
        }
        if (outIndex < 0 && errIndex < 0 && !exitedAt) {
            // Output closed but the child still runs (or is about to be reaped): look again
            // soon, backing off up to the cancellation interval.
            wait = std::min(wait, idleSleep);
            idleSleep = std::min(idleSleep * 2, options_.cancellationPollInterval);
        }

        int ready = ::poll(fds.data(), static_cast<nfds_t>(count), pollTimeout(wait));
        if (ready < 0) {
            if (errno == EINTR) continue;
            int code = errno;
            Log::f(kTag, "poll failed while running {}: {}", command.describe(), std::strerror(code));
            process.signalGroup(SIGKILL);
            return tl::unexpected(ShellError::launchFailed(
                fmt::format("Could not follow the output of {}: {}.", executable, std::strerror(code))));
        }
        if (ready == 0) continue;

        if (outIndex >= 0 && fds[outIndex].revents != 0) drainAvailable(process.stdoutHandle, result.stdout);
        if (errIndex >= 0 && fds[errIndex].revents != 0) drainAvailable(process.stderrHandle, result.stderr);
        if (inIndex >= 0 && fds[inIndex].revents != 0) {
            if (fds[inIndex].revents & (POLLERR | POLLHUP | POLLNVAL)) {
                // The child closed its standard input without reading it all.
                process.stdinHandle.reset();
                sigpipeBlock.collectPending();
            } else {
                ssize_t n = ::write(process.stdinHandle.get(), input.data(), input.size());
                if (n > 0) {
                    input.remove_prefix(static_cast<std::size_t>(n));
                    if (input.empty()) process.stdinHandle.reset();
                } else if (n < 0 && errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK) {
                    process.stdinHandle.reset();
                    sigpipeBlock.collectPending();
                }
            }
        }
    }
}

asio::awaitable<ShellRunner::Outcome> FakeShellRunner::run(ShellCommand command) {
    co_return runBlocking(command);
}

ShellRunner::Outcome FakeShellRunner::runBlocking(const ShellCommand& command) {
    Handler handler;
    {
        std::lock_guard guard(lock_);
        calls_.push_back(command);
        if (!queued_.empty()) {
            auto outcome = std::move(queued_.front());
            queued_.pop_front();
            return outcome;
        }
        handler = handler_;
    }
    if (handler) return handler(command);
    return tl::unexpected(ShellError::launchFailed(fmt::format("No scripted result for {}.", command.describe())));
}

void FakeShellRunner::enqueue(Outcome outcome) {
    std::lock_guard guard(lock_);
    queued_.push_back(std::move(outcome));
}

void FakeShellRunner::enqueueSuccess(std::string stdout, std::int32_t exitCode, std::string stderr) {
    enqueue(Result{exitCode, std::move(stdout), std::move(stderr)});
}

void FakeShellRunner::setHandler(Handler handler) {
    std::lock_guard guard(lock_);
    handler_ = std::move(handler);
}

std::vector<ShellCommand> FakeShellRunner::calls() const {
    std::lock_guard guard(lock_);
    return calls_;
}

}  // namespace ql
