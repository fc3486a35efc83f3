#include "qlcopy/ScoutPass.h"

#include "qlcopy/DirectoryLister.h"
#include "qlcopy/ThreadPriority.h"
#include "qlcopy/UniqueFd.h"

#include <fcntl.h>

namespace ql {

ScoutPass::ScoutPass(int srcRootFd, dev_t srcDev, const SelectionRules& rules, EngineCounters& counters,
                     const StopControl& stop)
    : rootFd_(srcRootFd), dev_(srcDev), rules_(rules), counters_(counters), stopControl_(stop) {}

ScoutPass::~ScoutPass() { stop(); }

void ScoutPass::start() {
    thread_ = std::thread([this] { run(); });
}

void ScoutPass::stop() {
    cancelled_.store(true);
    if (thread_.joinable()) thread_.join();
}

bool ScoutPass::shouldStop() const {
    return cancelled_.load(std::memory_order_relaxed) || stopControl_.stopping() ||
           counters_.walkDone.load(std::memory_order_relaxed);
}

void ScoutPass::run() {
    ThreadPriority::lowerCurrentThread();
    auto scope = rules_.rootScope();
    walk(rootFd_, *scope, 0);
    if (!shouldStop()) counters_.scoutDone.store(true);
}

void ScoutPass::walk(int dirFd, const SelectionScope& scope, int depth) {
    if (shouldStop() || depth > 4096) return;
    DirectoryListing listing = DirectoryLister::list(dirFd);
    for (const auto& e : listing.entries) {
        if (shouldStop()) return;
        PathVerdict v = scope.verdict(e.name, e.isDirectory());
        if (e.isDirectory()) {
            if ((!v.selected && !v.mayHoldSelected) || e.dev != dev_) continue;
            UniqueFd fd(::openat(dirFd, e.name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
            if (!fd.valid()) continue;
            auto child = scope.enter(e.name);
            walk(fd.get(), *child, depth + 1);
            continue;
        }
        if (!v.selected) continue;
        ++counters_.scoutFiles;
        if (e.isRegular()) counters_.scoutBytes += e.size;
    }
}

}  // namespace ql
