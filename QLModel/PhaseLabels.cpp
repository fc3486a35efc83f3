#include "QLModel/PhaseLabels.h"

namespace ql {

PhaseLabels::PhaseLabels(std::string pendingLabel, std::string activeLabel, std::string doneLabel)
    : pending(std::move(pendingLabel)),
      active(std::move(activeLabel)),
      done(std::move(doneLabel)),
      failed(failedLabel(pending)) {}

std::string PhaseLabels::failedLabel(std::string_view pending) {
    if (pending.empty()) return "Failed";
    std::string lowered(pending);
    if (lowered[0] >= 'A' && lowered[0] <= 'Z') lowered[0] = static_cast<char>(lowered[0] - 'A' + 'a');
    return "Failed to " + lowered;
}

}  // namespace ql
