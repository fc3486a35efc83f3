#include "QLProtocol/runners/CopyRuleSearchPath.h"

#ifndef QL_INSTALL_PREFIX
#define QL_INSTALL_PREFIX "/usr/local"
#endif

namespace ql {

// An installed Quillo keeps its standard rules with its other read-only data.
std::optional<std::string> CopyRuleSearchPath::bundleResources() { return installedResources(QL_INSTALL_PREFIX); }

}  // namespace ql
