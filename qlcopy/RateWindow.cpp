#include "qlcopy/RateWindow.h"

namespace ql {

RateWindow::RateWindow(double windowSeconds, double minimumSpanSeconds)
    : window_(windowSeconds), minimumSpan_(minimumSpanSeconds) {}

void RateWindow::add(double activeSeconds, std::int64_t workBytes) {
    if (!samples_.empty() && activeSeconds < samples_.back().t) samples_.clear();
    samples_.push_back({activeSeconds, workBytes});
    // Keep one sample at or before the window's start so the window is always fully spanned.
    while (samples_.size() > 2 && samples_[1].t <= activeSeconds - window_) samples_.pop_front();
}

double RateWindow::roughRate() const {
    if (samples_.size() < 2) return 0;
    double span = samples_.back().t - samples_.front().t;
    if (span <= 0) return 0;
    return static_cast<double>(samples_.back().bytes - samples_.front().bytes) / span;
}

std::optional<double> RateWindow::rate() const {
    if (samples_.size() < 2) return std::nullopt;
    double span = samples_.back().t - samples_.front().t;
    if (span < minimumSpan_) return std::nullopt;
    double r = static_cast<double>(samples_.back().bytes - samples_.front().bytes) / span;
    return r < 0 ? 0 : r;
}

}  // namespace ql
