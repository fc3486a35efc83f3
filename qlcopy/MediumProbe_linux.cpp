#include "qlcopy/MediumProbe.h"

#include <fmt/format.h>

#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>

#include <fstream>
#include <sstream>

namespace ql {
namespace {

std::optional<bool> rotationalOfDevice(unsigned major, unsigned minor) {
    // A partition's directory has no queue/ of its own; its parent (the whole disk) does.
    for (const char* rel : {"queue/rotational", "../queue/rotational"}) {
        std::ifstream in(fmt::format("/sys/dev/block/{}:{}/{}", major, minor, rel));
        int flag = -1;
        if (in >> flag) return flag == 0;
    }
    return std::nullopt;
}

// The block device behind a mount whose st_dev is anonymous (btrfs, for one), from mountinfo.
std::optional<bool> viaMountInfo(unsigned major, unsigned minor) {
    std::ifstream in("/proc/self/mountinfo");
    std::string line;
    const std::string wanted = fmt::format("{}:{}", major, minor);
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        std::string id, parent, majmin;
        fields >> id >> parent >> majmin;
        if (majmin != wanted) continue;
        auto dash = line.find(" - ");
        if (dash == std::string::npos) continue;
        std::istringstream tail(line.substr(dash + 3));
        std::string fstype, source;
        tail >> fstype >> source;
        struct stat st;
        if (source.rfind("/dev/", 0) == 0 && ::stat(source.c_str(), &st) == 0 && S_ISBLK(st.st_mode)) {
            return rotationalOfDevice(::major(st.st_rdev), ::minor(st.st_rdev));
        }
    }
    return std::nullopt;
}

}  // namespace

std::optional<bool> MediumProbe::isSolidState(const std::string& path) {
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) return std::nullopt;
    struct statfs fs;
    if (::statfs(path.c_str(), &fs) == 0 &&
        (static_cast<unsigned long>(fs.f_type) == TMPFS_MAGIC || static_cast<unsigned long>(fs.f_type) == RAMFS_MAGIC)) {
        return true;
    }
    unsigned maj = ::major(st.st_dev), min = ::minor(st.st_dev);
    if (maj != 0) {
        if (auto r = rotationalOfDevice(maj, min)) return r;
    }
    return viaMountInfo(maj, min);
}

}  // namespace ql
