#pragma once

#include <string_view>

namespace ql {

// Which end of a copy something concerns.
enum class EndpointSide { source, destination };

// "source" or "destination", as the runners' log lines and failure records spell it.
constexpr std::string_view caseName(EndpointSide side) {
    return side == EndpointSide::source ? "source" : "destination";
}

}  // namespace ql
