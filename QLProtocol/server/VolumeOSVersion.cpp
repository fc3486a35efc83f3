#include "QLProtocol/server/VolumeOSVersion.h"

#include "QLSupport/PropertyList.h"

#include <filesystem>
#include <fstream>
#include <sstream>

namespace ql {

namespace fs = std::filesystem;

std::string VolumeOSVersion::osReleaseValue(const std::string& text, const std::string& key) {
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        if (line.size() <= key.size() || line.compare(0, key.size(), key) != 0 || line[key.size()] != '=') continue;
        std::string value = line.substr(key.size() + 1);
        while (!value.empty() && (value.back() == '\r' || value.back() == ' ')) value.pop_back();
        if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') && value.back() == value.front()) {
            value = value.substr(1, value.size() - 2);
        }
        return value;
    }
    return {};
}

std::optional<VolumeOSVersion> VolumeOSVersion::read(const std::string& mountPoint) {
    const fs::path root(mountPoint);
    std::error_code error;
    const auto plist = root / "System/Library/CoreServices/SystemVersion.plist";
    if (fs::is_regular_file(plist, error)) {
        if (auto value = PropertyList::readFile(plist)) {
            VolumeOSVersion found;
            if (auto* v = value->find("ProductVersion"); v && v->asString()) found.version = *v->asString();
            if (auto* b = value->find("ProductBuildVersion"); b && b->asString()) found.build = *b->asString();
            if (!found.version.empty()) return found;
        }
    }
    std::ifstream in(root / "etc/os-release");
    if (!in) return std::nullopt;
    std::ostringstream text;
    text << in.rdbuf();
    VolumeOSVersion found{osReleaseValue(text.str(), "VERSION_ID"), osReleaseValue(text.str(), "BUILD_ID")};
    if (found.version.empty()) return std::nullopt;
    return found;
}

}  // namespace ql
