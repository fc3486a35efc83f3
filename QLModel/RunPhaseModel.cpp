#include "QLModel/RunPhaseModel.h"

#include "QLModel/PhaseCatalogue.h"
#include "QLSupport/Log.h"

#include <fmt/format.h>

namespace ql {
namespace {

std::vector<RunPhase> phasesFrom(std::initializer_list<const ClientPhaseDescriptor*> descriptors) {
    std::vector<RunPhase> phases;
    phases.reserve(descriptors.size());
    for (const auto* d : descriptors) phases.push_back(RunPhase::fromDescriptor(*d));
    return phases;
}

// The index of the phase, inserting one of the on-demand phases when it is missing; -1 when the
// phase is neither present nor insertable.
int locateOrInsert(std::vector<RunPhase>& phases, std::string_view phaseID) {
    if (int k = RunPhaseModel::phaseIndex(phases, phaseID); k >= 0) return k;
    auto insertion = PhaseCatalogue::insertion(phaseID);
    if (!insertion) return -1;
    auto position = phases.size();
    for (auto anchor : insertion->anchors) {
        if (int a = RunPhaseModel::phaseIndex(phases, anchor); a >= 0) {
            position = static_cast<std::size_t>(a);
            break;
        }
    }
    phases.insert(phases.begin() + static_cast<std::ptrdiff_t>(position), RunPhase::fromDescriptor(*insertion->descriptor));
    return static_cast<int>(position);
}

void settleAround(std::vector<RunPhase>& phases, int k) {
    for (int i = 0; i < static_cast<int>(phases.size()); ++i) {
        if (i < k) phases[static_cast<std::size_t>(i)].state = PhaseState::done;
        if (i > k) phases[static_cast<std::size_t>(i)].state = PhaseState::pending;
    }
}

std::vector<RunPhase> applyStep(std::vector<RunPhase> phases, std::string_view phaseID, std::string_view stepID,
                                PhaseState newState, std::string_view tag) {
    int k = RunPhaseModel::phaseIndex(phases, phaseID);
    if (k < 0) return phases;
    auto& phase = phases[static_cast<std::size_t>(k)];
    int j = phase.stepIndex(stepID);
    if (j < 0) {
        Log::f(tag, "no step '{}' in client phase '{}'", stepID, phaseID);
        return phases;
    }
    if (phase.state == PhaseState::pending) phase.state = PhaseState::active;
    for (int i = 0; i < j; ++i) {
        auto& earlier = phase.steps[static_cast<std::size_t>(i)];
        if (earlier.state == PhaseState::pending) earlier.state = PhaseState::done;
    }
    phase.steps[static_cast<std::size_t>(j)].state = newState;
    return phases;
}

}  // namespace

int RunPhaseModel::phaseIndex(const std::vector<RunPhase>& phases, std::string_view phaseID) {
    for (std::size_t i = 0; i < phases.size(); ++i) {
        if (phases[i].id == phaseID) return static_cast<int>(i);
    }
    return -1;
}

std::vector<RunPhase> RunPhaseModel::seed(RunShape shape, bool bootable, SeedInputs inputs) {
    using C = PhaseCatalogue;
    if (shape == RunShape::smartUpdate) {
        if (inputs.destinationIsDiskImage) return phasesFrom({&C::prepareDiskImage(false), &C::snapshot(), &C::files()});
        return phasesFrom({&C::prepare(), &C::snapshot(), &C::files()});
    }
    if (bootable) return phasesFrom({&C::prepare(), &C::replicate(), &C::finalize()});
    if (!inputs.destinationIsDiskImage) return phasesFrom({&C::erase(), &C::prepare(), &C::snapshot(), &C::files()});
    return phasesFrom({&C::prepareDiskImage(inputs.imageEraseWillRun), &C::snapshot(), &C::files()});
}

std::vector<RunPhase> RunPhaseModel::applyPhaseStart(std::vector<RunPhase> phases, std::string_view phaseID,
                                                     bool logUnknown) {
    int k = locateOrInsert(phases, phaseID);
    if (k < 0) {
        if (logUnknown) Log::f("applyPhaseStart", "unrecognised daemon phase '{}'", phaseID);
        return phases;
    }
    settleAround(phases, k);
    phases[static_cast<std::size_t>(k)].state = PhaseState::active;
    return phases;
}

std::vector<RunPhase> RunPhaseModel::applyStepStart(std::vector<RunPhase> phases, std::string_view phaseID,
                                                    std::string_view stepID) {
    return applyStep(std::move(phases), phaseID, stepID, PhaseState::active, "applyStepStart");
}

std::vector<RunPhase> RunPhaseModel::applyStepEnd(std::vector<RunPhase> phases, std::string_view phaseID,
                                                  std::string_view stepID) {
    return applyStep(std::move(phases), phaseID, stepID, PhaseState::done, "applyStepEnd");
}

std::vector<RunPhase> RunPhaseModel::applyPhaseEnd(std::vector<RunPhase> phases, std::string_view phaseID,
                                                   bool logUnknown) {
    int k = locateOrInsert(phases, phaseID);
    if (k < 0) {
        if (logUnknown) Log::f("applyPhaseEnd", "unrecognised daemon phase '{}'", phaseID);
        return phases;
    }
    // Later phases keep their state: an end says nothing about what comes next.
    for (int i = 0; i < k; ++i) phases[static_cast<std::size_t>(i)].state = PhaseState::done;
    auto& phase = phases[static_cast<std::size_t>(k)];
    phase.state = PhaseState::done;
    for (auto& step : phase.steps) {
        if (step.state == PhaseState::pending || step.state == PhaseState::active) step.state = PhaseState::done;
    }
    return phases;
}

std::vector<RunPhase> RunPhaseModel::applyFailure(std::vector<RunPhase> phases, std::optional<std::string_view> phaseID,
                                                  std::optional<std::string_view> stepID) {
    int k = phaseID ? locateOrInsert(phases, *phaseID) : -1;
    if (k < 0) {
        for (std::size_t i = 0; i < phases.size() && k < 0; ++i) {
            if (phases[i].state == PhaseState::active) k = static_cast<int>(i);
        }
        stepID.reset();  // a step of an unknown phase names nothing here
    }
    if (k < 0) return phases;
    for (int i = 0; i < k; ++i) phases[static_cast<std::size_t>(i)].state = PhaseState::done;
    auto& phase = phases[static_cast<std::size_t>(k)];
    phase.state = PhaseState::failed;
    int j = stepID ? phase.stepIndex(*stepID) : -1;
    if (j >= 0) {
        phase.steps[static_cast<std::size_t>(j)].state = PhaseState::failed;
    } else {
        for (auto& step : phase.steps) {
            if (step.state == PhaseState::active) step.state = PhaseState::failed;
        }
    }
    return phases;
}

}  // namespace ql
