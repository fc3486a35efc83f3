#include "qlcopy/StallDetector.h"

#include <set>

namespace ql {

StallDetector::StallDetector(double stallAfterSeconds, double slowAfterSeconds)
    : stallAfter_(stallAfterSeconds), slowAfter_(slowAfterSeconds) {}

std::vector<StallDetector::Report> StallDetector::check(const std::vector<ActivityBoard::Slot>& slots, double now) {
    std::vector<Report> reports;
    std::set<std::uint64_t> live;
    for (const auto& s : slots) {
        if (s.kind == ActivityBoard::Kind::idle) continue;
        live.insert(s.serial);
        const bool listing = s.kind == ActivityBoard::Kind::listing;
        const double threshold = listing ? slowAfter_ : stallAfter_;
        const double measured = listing ? now - s.startedAt : now - s.lastProgressAt;
        if (measured < threshold) continue;
        auto it = lastReported_.find(s.serial);
        if (it != lastReported_.end() && now - it->second < threshold) continue;
        lastReported_[s.serial] = now;
        Report r;
        r.type = listing ? Report::Type::slow : Report::Type::stall;
        r.subject = ActivityBoard::kindName(s.kind);
        r.path = s.path;
        r.seconds = measured;
        r.entriesSeen = s.entriesSeen;
        reports.push_back(std::move(r));
    }
    for (auto it = lastReported_.begin(); it != lastReported_.end();) {
        it = live.count(it->first) ? std::next(it) : lastReported_.erase(it);
    }
    return reports;
}

}  // namespace ql
