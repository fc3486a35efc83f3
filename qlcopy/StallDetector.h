#pragma once

#include "qlcopy/ActivityBoard.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace ql {

// Decides, from a snapshot of the activity board, which `stall` and `slow` reports are due.
// An operation (copy, stat, delete, retime) without progress for `stallAfter` seconds is a
// stall; a directory listing that has taken `slowAfter` seconds is slow. Each report repeats
// once per threshold while the condition lasts, and stops when the operation ends.
class StallDetector {
public:
    struct Report {
        enum class Type { stall, slow };
        Type type;
        std::string subject;   // "copy", "stat", "delete", "retime" or "scan"
        std::string path;
        double seconds = 0;    // stalled_s or in_dir_s
        std::int64_t entriesSeen = 0;
        bool operator==(const Report&) const = default;
    };

    StallDetector(double stallAfterSeconds, double slowAfterSeconds);

    std::vector<Report> check(const std::vector<ActivityBoard::Slot>& slots, double now);

private:
    double stallAfter_;
    double slowAfter_;
    // serial of the operation → active time of its last report
    std::map<std::uint64_t, double> lastReported_;
};

}  // namespace ql
