#include "QLProtocol/runners/CopyRuleSearchPath.h"

#include <CoreFoundation/CoreFoundation.h>

#include <climits>

namespace ql {

// The resources folder of the bundle this program runs from.
std::optional<std::string> CopyRuleSearchPath::bundleResources() {
    CFBundleRef bundle = CFBundleGetMainBundle();
    if (!bundle) return std::nullopt;
    CFURLRef url = CFBundleCopyResourcesDirectoryURL(bundle);
    if (!url) return std::nullopt;
    CFURLRef absolute = CFURLCopyAbsoluteURL(url);
    CFRelease(url);
    if (!absolute) return std::nullopt;
    char buffer[PATH_MAX];
    bool ok = CFURLGetFileSystemRepresentation(absolute, true, reinterpret_cast<UInt8*>(buffer), sizeof buffer);
    CFRelease(absolute);
    if (!ok) return std::nullopt;
    return std::string(buffer);
}

}  // namespace ql
