#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>

namespace ql {

// Turns SIGINT and SIGTERM into an orderly stop. `prepareProcess` must run before any other
// thread starts: it blocks both signals everywhere (a dedicated thread takes them with
// sigwait), ignores SIGPIPE (a closed progress pipe is an error to handle, not a death) and
// counts SIGCONT deliveries so the progress loop can take stopped time out of its clocks.
//
// On the first stop signal `onStop` runs; if the engine has not called `finished()` within the
// grace period, or another stop signal arrives, `onEmergency` runs (it writes the last events
// and ends the process), so the engine always exits within the time its caller waits.
class SignalWatcher {
public:
    static void prepareProcess();
    static std::uint64_t continuedCount();

    SignalWatcher(std::function<void(int)> onStop, std::function<void(int)> onEmergency,
                  std::chrono::milliseconds grace);
    ~SignalWatcher();
    SignalWatcher(const SignalWatcher&) = delete;
    SignalWatcher& operator=(const SignalWatcher&) = delete;

    void finished();

private:
    void run();

    std::function<void(int)> onStop_;
    std::function<void(int)> onEmergency_;
    std::chrono::milliseconds grace_;
    std::mutex mutex_;
    std::condition_variable cv_;
    bool finished_ = false;
    std::atomic<bool> exiting_{false};
    std::thread thread_;
};

}  // namespace ql
