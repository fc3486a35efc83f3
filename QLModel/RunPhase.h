#pragma once

#include "QLModel/ClientPhaseDescriptor.h"
#include "QLModel/PhaseLabels.h"

#include <string>
#include <string_view>
#include <vector>

namespace ql {

// Where a checklist line stands, in this order.
enum class PhaseState { done, active, pending, failed };

std::string_view caseName(PhaseState state);

// One step line of a running phase.
struct RunPhaseStep {
    std::string id;
    PhaseLabels labels;
    PhaseState state = PhaseState::pending;

    // The label for the current state.
    const std::string& label() const;

    friend bool operator==(const RunPhaseStep&, const RunPhaseStep&) = default;
};

// One phase line of a running job's checklist, with its steps.
struct RunPhase {
    std::string id;
    PhaseLabels labels;
    PhaseState state = PhaseState::pending;
    std::vector<RunPhaseStep> steps;
    bool isDeterminate = false;

    // A pending phase (and pending steps) from its catalogue descriptor.
    static RunPhase fromDescriptor(const ClientPhaseDescriptor& descriptor);

    // The label for the current state.
    const std::string& label() const;
    // The index of step `id`, or -1.
    int stepIndex(std::string_view stepID) const;

    friend bool operator==(const RunPhase&, const RunPhase&) = default;
};

}  // namespace ql
