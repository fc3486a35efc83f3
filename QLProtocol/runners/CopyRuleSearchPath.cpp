#include "QLProtocol/runners/CopyRuleSearchPath.h"

namespace ql {

std::vector<std::string> CopyRuleSearchPath::directories(const std::optional<std::string>& userHome,
                                                         const std::optional<std::string>& bundleResources) {
    std::vector<std::string> dirs;
    if (userHome && !userHome->empty()) {
        std::string rules = *userHome + "/Library/Application Support/Quillo!" + "/Rules";
        dirs.push_back(rules);
        dirs.push_back(rules + "/Copy Scripts");
    }
    if (bundleResources && !bundleResources->empty()) {
        dirs.push_back(*bundleResources + "/CopyScripts/StandardScripts");
    }
    return dirs;
}

std::string CopyRuleSearchPath::installedResources(std::string_view prefix) {
    while (prefix.size() > 1 && prefix.back() == '/') prefix.remove_suffix(1);
    if (prefix == "/") prefix = "";
    return std::string(prefix) + "/share/quillo";
}

}  // namespace ql
