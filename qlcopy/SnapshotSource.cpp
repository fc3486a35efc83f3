#include "qlcopy/SnapshotSource.h"

#include "qlcopy/ErrnoText.h"

#include <fmt/format.h>

#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdlib>

namespace ql {

tl::expected<std::string, std::string> SnapshotSource::volumeRoot(const std::string& path) {
    char resolved[PATH_MAX];
    if (!::realpath(path.c_str(), resolved)) {
        return tl::unexpected(fmt::format("cannot resolve {}: {}", path, ErrnoText::describe(errno)));
    }
    std::string current = resolved;
    struct stat st;
    if (::stat(current.c_str(), &st) != 0) {
        return tl::unexpected(fmt::format("cannot read {}: {}", current, ErrnoText::describe(errno)));
    }
    const dev_t dev = st.st_dev;
    while (current != "/") {
        auto slash = current.rfind('/');
        std::string parent = slash == 0 ? std::string("/") : current.substr(0, slash);
        struct stat pst;
        if (::stat(parent.c_str(), &pst) != 0 || pst.st_dev != dev) break;
        current = parent;
    }
    return current;
}

tl::expected<std::string, std::string> SnapshotSource::resolve(const std::string& source, const std::string& snapshotMount) {
    auto root = volumeRoot(source);
    if (!root) return tl::unexpected(root.error());
    char resolved[PATH_MAX];
    if (!::realpath(source.c_str(), resolved)) {
        return tl::unexpected(fmt::format("cannot resolve {}: {}", source, ErrnoText::describe(errno)));
    }
    std::string full = resolved;
    std::string relative = *root == "/" ? full : full.substr(root->size());
    std::string mount = snapshotMount;
    while (mount.size() > 1 && mount.back() == '/') mount.pop_back();
    if (relative.empty() || relative == "/") return mount;
    return mount == "/" ? relative : mount + relative;
}

}  // namespace ql
