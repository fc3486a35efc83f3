#pragma once

#include "QLProtocol/proto/runs.pb.h"
#include "QLProtocol/runners/NormalizedProgress.h"

namespace ql {

// The one computation of fraction, rate and estimate from a wire progress sample. Two shapes:
//
//   replication  `scout_total_bytes` is 0 and `bytes_total` at least 1: only bytes done of a
//                known total; a negative estimate means the total is still being worked out.
//   engine       everything else: work is measured by `work_done_bytes` (copied plus skipped)
//                when the engine reports it, otherwise by what it has evaluated; there is a
//                fraction only once the sizing pass has finished and no deletion is holding the
//                copy back.
//
// Negative counters are read as 0; the result never divides by zero and never exceeds 1.
struct ProgressModel {
    static NormalizedProgress normalize(const ql4::transport::v1::Progress& progress);

    // Whole bytes per second from a measured rate: the rate truncated, or 0 when it is not a
    // positive finite number.
    static std::uint64_t wholeRate(double bytesPerSecond);
};

}  // namespace ql
