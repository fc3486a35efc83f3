#pragma once

#include <string_view>

namespace ql {

// What a finished copy may do to the machine once every run has ended.
enum class PowerAction { sleep, restart, shutDown };

constexpr std::string_view caseName(PowerAction action) {
    switch (action) {
        case PowerAction::sleep: return "sleep";
        case PowerAction::restart: return "restart";
        case PowerAction::shutDown: return "shutDown";
    }
    return "sleep";
}

}  // namespace ql
