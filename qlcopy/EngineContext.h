#pragma once

#include "qlcopy/ActiveClock.h"
#include "qlcopy/ActivityBoard.h"
#include "qlcopy/BandwidthLimiter.h"
#include "qlcopy/DataCopier.h"
#include "qlcopy/DeferredList.h"
#include "qlcopy/EngineCounters.h"
#include "qlcopy/EngineOptions.h"
#include "qlcopy/ErrorLedger.h"
#include "qlcopy/EventWriter.h"
#include "qlcopy/ItemReporter.h"
#include "qlcopy/KeybagProbe.h"
#include "qlcopy/MetadataSync.h"
#include "qlcopy/SelectionRules.h"
#include "qlcopy/StopControl.h"

#include <string>

namespace ql {

// Everything the walker, the copiers and the deleter share during one run. The references
// outlive every thread of the run (the engine owns them).
struct EngineContext {
    const EngineOptions& options;
    EventWriter& events;
    EngineCounters& counters;
    ErrorLedger& errors;
    StopControl& stop;
    ActivityBoard& board;
    const ActiveClock& clock;
    ItemReporter& items;
    const MetadataSync& meta;
    CopyRoutes& routes;
    KeybagProbe& keybag;
    DeferredList& deferred;
    BandwidthLimiter& bandwidth;
    const SelectionRules& rules;

    int dstRootFd = -1;         // the destination root (absent in a dry run of a new destination)
    dev_t srcRootDev = 0;
    dev_t dstRootDev = 0;
    std::string srcRoot{};      // absolute, as the source is read (the snapshot path with --snapshot)
    std::string dstRoot{};
    std::int64_t timeGranularityNs = 1;
    bool dryRun = false;

    // Absolute paths for messages; `rel` is relative to the copy root with a leading "/".
    std::string srcPath(const std::string& rel) const { return srcRoot + rel; }
    std::string dstPath(const std::string& rel) const { return dstRoot + rel; }
    static std::string display(const std::string& rel) { return rel.empty() ? "/" : rel; }
};

}  // namespace ql
