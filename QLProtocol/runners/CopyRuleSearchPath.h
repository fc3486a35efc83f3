#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ql {

// The folders in which the engine looks up the rule documents that a copy rule includes: the
// user's own rule folders first, then the standard rules shipped with Quillo. The client puts
// them into each request's `copyScriptSearchDirs`.
struct CopyRuleSearchPath {
    // In order: home + "/Library/Application Support/Quillo!/Rules", the same + "/Copy Scripts"
    // (when the home folder is known and non-empty), then bundleResources +
    // "/CopyScripts/StandardScripts" (when the resources folder is known and non-empty).
    static std::vector<std::string> directories(const std::optional<std::string>& userHome,
                                                const std::optional<std::string>& bundleResources);

    // The resources folder of an installation below `prefix` on Linux: prefix + "/share/quillo",
    // so that the standard rules are read from "<prefix>/share/quillo/CopyScripts/StandardScripts".
    static std::string installedResources(std::string_view prefix);

    // This program's own resources folder: the application bundle's resources on macOS, the
    // installed data folder (below the build's install prefix) on Linux. Absent when it cannot be
    // determined.
    static std::optional<std::string> bundleResources();
};

}  // namespace ql
