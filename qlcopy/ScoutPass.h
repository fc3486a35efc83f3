#pragma once

#include "qlcopy/EngineCounters.h"
#include "qlcopy/SelectionRules.h"
#include "qlcopy/StopControl.h"

#include <sys/types.h>

#include <atomic>
#include <thread>

namespace ql {

// The sizing pass: a low-priority thread that walks the source ahead of the copy, counting the
// files and bytes the rules select, so progress has a total to measure against. It stops early
// when the run stops or when the walk itself has finished (its count is then exact).
class ScoutPass {
public:
    ScoutPass(int srcRootFd, dev_t srcDev, const SelectionRules& rules, EngineCounters& counters, const StopControl& stop);
    ~ScoutPass();
    ScoutPass(const ScoutPass&) = delete;
    ScoutPass& operator=(const ScoutPass&) = delete;

    void start();
    // Stops the thread and waits for it.
    void stop();

private:
    void run();
    void walk(int dirFd, const SelectionScope& scope, int depth);
    bool shouldStop() const;

    int rootFd_;
    dev_t dev_;
    const SelectionRules& rules_;
    EngineCounters& counters_;
    const StopControl& stopControl_;
    std::atomic<bool> cancelled_{false};
    std::thread thread_;
};

}  // namespace ql
