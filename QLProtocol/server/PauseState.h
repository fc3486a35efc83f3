#pragma once

#include <string_view>

namespace ql {

// Where a runner stands with respect to pausing. Every runner moves through the same states:
// `running` -> `pauseRequested` (a pause was asked for and will be honoured at the next safe
// point) -> `paused`, and back to `running` on resume.
enum class PauseState { running, pauseRequested, paused };

constexpr std::string_view caseName(PauseState state) {
    switch (state) {
        case PauseState::running: return "running";
        case PauseState::pauseRequested: return "pauseRequested";
        case PauseState::paused: return "paused";
    }
    return "running";
}

}  // namespace ql
