#include "QLProtocol/runners/VolumeHost.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace ql {

namespace {

// Undoes the octal escapes (\040 for a space, …) of a mountinfo field.
std::string unescape(const std::string& field) {
    std::string out;
    for (std::size_t i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size()) {
            const std::string digits = field.substr(i + 1, 3);
            if (digits.size() == 3 && digits.find_first_not_of("01234567") == std::string::npos) {
                out.push_back(static_cast<char>(std::stoi(digits, nullptr, 8)));
                i += 3;
                continue;
            }
        }
        out.push_back(field[i]);
    }
    return out;
}

bool isWithin(const std::string& path, const std::string& mount) {
    if (mount == "/") return true;
    return path == mount || (path.size() > mount.size() && path.compare(0, mount.size(), mount) == 0 &&
                             path[mount.size()] == '/');
}

}  // namespace

std::optional<VolumeHost> LiveVolumeHost::lookup(const std::string& path) {
    namespace fs = std::filesystem;
    std::error_code ec;
    fs::path existing = fs::absolute(path, ec);
    if (ec) return std::nullopt;
    while (!fs::exists(existing, ec)) {
        if (!existing.has_parent_path() || existing.parent_path() == existing) return std::nullopt;
        existing = existing.parent_path();
    }
    const std::string canonical = fs::canonical(existing, ec).string();
    if (ec) return std::nullopt;
    struct stat st {};
    if (::stat(canonical.c_str(), &st) != 0) return std::nullopt;

    std::ifstream table("/proc/self/mountinfo");
    if (!table) return std::nullopt;
    std::optional<VolumeHost> best;
    std::string line;
    while (std::getline(table, line)) {
        // id parent major:minor root mountpoint options [optional fields] - fstype source superoptions
        std::istringstream in(line);
        std::string id, parent, devnum, root, mountPoint;
        if (!(in >> id >> parent >> devnum >> root >> mountPoint)) continue;
        std::string word;
        while (in >> word && word != "-") {
        }
        std::string fstype, source;
        in >> fstype >> source;
        mountPoint = unescape(mountPoint);
        const auto colon = devnum.find(':');
        if (colon == std::string::npos) continue;
        unsigned long major = 0, minor = 0;
        try {
            major = std::stoul(devnum.substr(0, colon));
            minor = std::stoul(devnum.substr(colon + 1));
        } catch (...) {
            continue;
        }
        if (major != ::major(st.st_dev) || minor != ::minor(st.st_dev)) continue;
        if (!isWithin(canonical, mountPoint)) continue;
        // The innermost mount of the filesystem wins (a later line over-mounts an earlier one).
        if (best && best->mount.size() > mountPoint.size()) continue;
        source = unescape(source);
        if (source.rfind("/dev/", 0) == 0) source = source.substr(5);
        best = VolumeHost{source, mountPoint};
    }
    return best;
}

}  // namespace ql
