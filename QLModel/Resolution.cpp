#include "QLModel/Resolution.h"

#include <array>
#include <ostream>

namespace ql {

const CurrentVolumeState* Resolution::state() const {
    if (auto found = as<Ok>()) return &found->state;
    if (auto doubtful = as<Suspicious>()) return &doubtful->state;
    return nullptr;
}

const std::vector<InvariantMismatch>& Resolution::mismatches() const {
    static const std::vector<InvariantMismatch> none;
    if (auto doubtful = as<Suspicious>()) return doubtful->mismatches;
    return none;
}

const UnresolvedReason* Resolution::reason() const {
    if (auto missing = as<Unresolved>()) return &missing->reason;
    return nullptr;
}

std::string_view Resolution::caseName() const {
    static constexpr std::array<std::string_view, 3> names{"ok", "suspicious", "unresolved"};
    return names[value.index()];
}

std::string Resolution::description() const {
    std::string out(caseName());
    out += "(";
    if (auto missing = reason()) {
        out += missing->description();
    } else {
        out += state()->bsdDevice;
        for (const auto& mismatch : mismatches()) out += "; " + mismatch.description();
    }
    out += ")";
    return out;
}

std::ostream& operator<<(std::ostream& out, const Resolution& resolution) { return out << resolution.description(); }

}  // namespace ql
