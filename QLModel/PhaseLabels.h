#pragma once

#include <string>
#include <string_view>

namespace ql {

// The four texts of one checklist line: before it starts ("Erase destination"), while it runs
// ("Erasing destination"), after it completed ("Erased destination") and when it failed
// ("Failed to erase destination"). The failed text is always derived from the pending one.
struct PhaseLabels {
    std::string pending;
    std::string active;
    std::string done;
    std::string failed;

    PhaseLabels() = default;
    PhaseLabels(std::string pending, std::string active, std::string done);

    // "Failed to " + the pending label with its first character lower-cased; "Failed" for an
    // empty pending label.
    static std::string failedLabel(std::string_view pending);

    friend bool operator==(const PhaseLabels&, const PhaseLabels&) = default;
};

}  // namespace ql
