#pragma once

#include <atomic>
#include <mutex>
#include <optional>
#include <string>

namespace ql {

// A condition that ends the run with a `failure` event instead of a summary.
struct EngineFailure {
    std::string kind;     // failure kind word, may be empty (the run's phase is then assumed)
    std::string message;  // a full sentence for the user's log
    std::string path;
    std::string syscall;
    std::string side;     // "src" or "dst", may be empty
    int error = 0;        // errno, 0 when none
    int exitStatus = 1;
};

// Why and whether the run must stop early: a signal (SIGINT, SIGTERM) or a fatal condition.
// Every loop of the engine asks `stopping()` between items and between data chunks.
class StopControl {
public:
    bool stopping() const { return stopping_.load(std::memory_order_relaxed); }
    int signal() const { return signal_.load(); }

    void requestSignalStop(int signalNumber);
    // The first fatal failure wins; returns whether this one was recorded.
    bool fail(EngineFailure failure);
    std::optional<EngineFailure> failure() const;

private:
    std::atomic<bool> stopping_{false};
    std::atomic<int> signal_{0};
    mutable std::mutex mutex_;
    std::optional<EngineFailure> failure_;
};

}  // namespace ql
