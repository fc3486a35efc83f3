#include "QLModel/LiveDiskImageBackingProbe.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <filesystem>
#include <fstream>

namespace ql {
namespace fs = std::filesystem;

std::optional<DiskImageBacking> LiveDiskImageBackingProbe::backing(const std::string& requested) {
    std::string device = requested.rfind("/dev/", 0) == 0 ? requested.substr(5) : requested;
    if (device.empty() || device.find('/') != std::string::npos) return std::nullopt;
    std::error_code error;
    auto entry = fs::path(options_.sysClassBlock) / device;
    if (fs::exists(entry / "partition", error)) {
        auto resolved = fs::canonical(entry, error);
        if (error) return std::nullopt;
        entry = fs::path(options_.sysClassBlock) / resolved.parent_path().filename();
    }
    std::ifstream in(entry / "loop" / "backing_file");
    std::string path;
    if (!in || !std::getline(in, path) || path.empty()) return std::nullopt;
    constexpr std::string_view deleted = " (deleted)";
    if (path.size() > deleted.size() && path.compare(path.size() - deleted.size(), deleted.size(), deleted) == 0) {
        path.resize(path.size() - deleted.size());
    }
    DiskImageBacking backing{path, std::nullopt};
    struct stat info {};
    if (::stat(path.c_str(), &info) == 0) {
        auto link = fs::path(options_.sysDevBlock) /
                    (std::to_string(major(info.st_dev)) + ":" + std::to_string(minor(info.st_dev)));
        auto host = fs::canonical(link, error);
        if (!error) backing.hostDevice = host.filename().string();
    }
    return backing;
}

}  // namespace ql
