#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace ql {

// One progress sample reduced to what a display needs: an overall fraction (absent while the
// total is still being estimated), a rate, an estimate of time left and the current path. Made
// by `ProgressModel::normalize` from an engine sample or from the replication runner's
// bytes-of-total sample (`isAsrShape`).
struct NormalizedProgress {
    bool isAsrShape = false;
    std::uint64_t bytesCompleted = 0;
    std::uint64_t bytesTotal = 0;
    std::uint64_t filesCompleted = 0;
    std::uint64_t filesTotal = 0;
    std::uint64_t bytesCopied = 0;
    std::uint64_t bytesUpToDate = 0;
    bool isEstimating = false;
    std::optional<double> fraction;  // 0…1
    std::uint64_t ratePerSec = 0;
    std::int64_t etaSeconds = 0;
    std::string currentPath;
    bool deleteBackpressure = false;
    std::int64_t itemsDeleted = 0;
    bool copyInFlight = false;
    std::string copyPath;
    std::string scanPath;
    bool walkDone = false;
    std::int64_t dirsRetimeChecked = 0;
    std::int64_t dirsRetimeTotal = 0;

    friend bool operator==(const NormalizedProgress&, const NormalizedProgress&) = default;
};

}  // namespace ql
