#pragma once

#include "QLModel/PhaseLabels.h"

#include <string>
#include <vector>

namespace ql {

// One phase of the run checklist as the catalogue describes it: the identifier the server sends,
// its labels, its steps, and whether it shows a progress fraction rather than a spinner.
struct ClientPhaseDescriptor {
    struct StepDescriptor {
        std::string id;
        PhaseLabels labels;
        friend bool operator==(const StepDescriptor&, const StepDescriptor&) = default;
    };

    std::string id;
    PhaseLabels labels;
    std::vector<StepDescriptor> steps;
    bool isDeterminate = false;

    friend bool operator==(const ClientPhaseDescriptor&, const ClientPhaseDescriptor&) = default;
};

}  // namespace ql
