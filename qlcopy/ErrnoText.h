#pragma once

#include <string>
#include <string_view>

namespace ql {

// The text of an errno value as the engine's messages carry it: the system's description
// followed by the symbolic name, e.g. "No space left on device (ENOSPC)".
struct ErrnoText {
    static std::string describe(int error);
    // The symbolic name ("ENOSPC"), or "errno N" for a value the table does not know.
    static std::string name(int error);
};

}  // namespace ql
