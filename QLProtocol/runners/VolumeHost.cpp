#include "QLProtocol/runners/VolumeHost.h"

namespace ql {

std::optional<std::filesystem::path> VolumeHost::nearestExisting(const std::string& path) {
    namespace fs = std::filesystem;
    std::error_code ec;
    fs::path existing = fs::absolute(path, ec);
    if (ec) return std::nullopt;
    while (!fs::exists(existing, ec)) {
        if (!existing.has_parent_path() || existing.parent_path() == existing) return std::nullopt;
        existing = existing.parent_path();
    }
    return existing;
}

}  // namespace ql
