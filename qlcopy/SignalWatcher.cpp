#include "qlcopy/SignalWatcher.h"

#include <pthread.h>
#include <signal.h>

#include <cerrno>

namespace ql {
namespace {

std::atomic<std::uint64_t> continuedSignals{0};

void onContinue(int) { continuedSignals.fetch_add(1, std::memory_order_relaxed); }

sigset_t watchedSet() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGUSR2);  // the watcher's own wake-up at shutdown
    return set;
}

}  // namespace

void SignalWatcher::prepareProcess() {
    sigset_t set = watchedSet();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    sigaction(SIGPIPE, &ignore, nullptr);
    struct sigaction cont {};
    cont.sa_handler = onContinue;
    sigemptyset(&cont.sa_mask);
    cont.sa_flags = SA_RESTART;
    sigaction(SIGCONT, &cont, nullptr);
}

std::uint64_t SignalWatcher::continuedCount() { return continuedSignals.load(std::memory_order_relaxed); }

SignalWatcher::SignalWatcher(std::function<void(int)> onStop, std::function<void(int)> onEmergency,
                             std::chrono::milliseconds grace)
    : onStop_(std::move(onStop)), onEmergency_(std::move(onEmergency)), grace_(grace) {
    thread_ = std::thread([this] { run(); });
}

SignalWatcher::~SignalWatcher() {
    exiting_.store(true);
    finished();
    pthread_kill(thread_.native_handle(), SIGUSR2);
    thread_.join();
}

void SignalWatcher::finished() {
    std::lock_guard lock(mutex_);
    finished_ = true;
    cv_.notify_all();
}

void SignalWatcher::run() {
    sigset_t set = watchedSet();
    bool stopping = false;
    for (;;) {
        int sig = 0;
        if (sigwait(&set, &sig) != 0) continue;
        if (sig == SIGUSR2) {
            if (exiting_.load()) return;
            continue;
        }
        if (stopping) {
            // A second stop signal while still winding down: end now.
            onEmergency_(sig);
            continue;
        }
        stopping = true;
        onStop_(sig);
        std::unique_lock lock(mutex_);
        if (!cv_.wait_for(lock, grace_, [this] { return finished_; })) {
            lock.unlock();
            onEmergency_(sig);
        }
    }
}

}  // namespace ql
