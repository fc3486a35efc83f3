#include "server-main/ServerOptions.h"

#include <mach-o/dyld.h>

namespace ql {

std::filesystem::path ServerOptions::currentExecutable() {
    char buffer[4096];
    uint32_t size = sizeof(buffer);
    if (_NSGetExecutablePath(buffer, &size) != 0) return {};
    std::error_code ec;
    auto resolved = std::filesystem::canonical(buffer, ec);
    return ec ? std::filesystem::path(buffer) : resolved;
}

}  // namespace ql
