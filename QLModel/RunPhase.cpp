#include "QLModel/RunPhase.h"

namespace ql {
namespace {

const std::string& labelFor(const PhaseLabels& labels, PhaseState state) {
    switch (state) {
        case PhaseState::done: return labels.done;
        case PhaseState::active: return labels.active;
        case PhaseState::pending: return labels.pending;
        case PhaseState::failed: return labels.failed;
    }
    return labels.pending;
}

}  // namespace

std::string_view caseName(PhaseState state) {
    switch (state) {
        case PhaseState::done: return "done";
        case PhaseState::active: return "active";
        case PhaseState::pending: return "pending";
        case PhaseState::failed: return "failed";
    }
    return "pending";
}

const std::string& RunPhaseStep::label() const { return labelFor(labels, state); }

RunPhase RunPhase::fromDescriptor(const ClientPhaseDescriptor& descriptor) {
    RunPhase phase{descriptor.id, descriptor.labels, PhaseState::pending, {}, descriptor.isDeterminate};
    phase.steps.reserve(descriptor.steps.size());
    for (const auto& step : descriptor.steps) phase.steps.push_back({step.id, step.labels, PhaseState::pending});
    return phase;
}

const std::string& RunPhase::label() const { return labelFor(labels, state); }

int RunPhase::stepIndex(std::string_view stepID) const {
    for (std::size_t i = 0; i < steps.size(); ++i) {
        if (steps[i].id == stepID) return static_cast<int>(i);
    }
    return -1;
}

}  // namespace ql
