#pragma once

#include "qlcopy/ActiveClock.h"
#include "qlcopy/ActivityBoard.h"
#include "qlcopy/EngineCounters.h"
#include "qlcopy/EventWriter.h"
#include "qlcopy/RateWindow.h"
#include "qlcopy/StallDetector.h"

#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace ql {

// The progress loop: every interval it writes a `progress` event built from the counters and
// the activity board, writes `stall` and `slow` reports as they fall due, and runs a periodic
// check (the destination's identity). It keeps the active clock, so time the process spent
// stopped counts neither towards a stall nor in the rate window.
class ProgressReporter {
public:
    struct Settings {
        double intervalSeconds = 0.333;
        double stallAfterSeconds = 30;
        double slowAfterSeconds = 10;
        std::optional<bool> srcSolidState;
        std::optional<bool> dstSolidState;
        std::function<void()> periodicCheck;  // every ~2 seconds, on the progress thread
        std::function<std::uint64_t()> continuedCount;  // SIGCONT deliveries so far
    };

    ProgressReporter(Settings settings, EngineCounters& counters, const ActivityBoard& board, ActiveClock& clock,
                     EventWriter& events);
    ~ProgressReporter();
    ProgressReporter(const ProgressReporter&) = delete;
    ProgressReporter& operator=(const ProgressReporter&) = delete;

    void start();
    void stop();
    // Writes one progress event now (the last one before the run's end); call after stop().
    void emitNow();

    // The `progress` event for the current counters, at active time `activeSeconds`.
    Json buildProgress(double activeSeconds);
    // Where the walker and the copiers are, for `terminated`.
    std::string scannerPath() const;
    std::string executorPath() const;

private:
    void run();
    void tick();

    Settings settings_;
    EngineCounters& counters_;
    const ActivityBoard& board_;
    ActiveClock& clock_;
    EventWriter& events_;
    StallDetector stalls_;
    RateWindow window_;
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    std::thread thread_;
    std::string lastScanPath_;
    std::string lastCopyPath_;
    std::uint64_t lastContinued_ = 0;
    double lastCheck_ = 0;
};

}  // namespace ql
