#include "qlcopy/DirectoryLister.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace ql {

DirectoryListing DirectoryLister::list(int dirFd, const std::function<void(std::int64_t)>& onProgress) {
    DirectoryListing out;
    // A descriptor of our own, so reading does not move anyone else's directory offset.
    int fd = ::openat(dirFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        out.openError = errno;
        return out;
    }
    DIR* dir = ::fdopendir(fd);
    if (!dir) {
        out.openError = errno;
        ::close(fd);
        return out;
    }
    std::vector<std::string> names;
    for (;;) {
        errno = 0;
        struct dirent* d = ::readdir(dir);
        if (!d) {
            if (errno != 0) out.readError = errno;
            break;
        }
        const char* n = d->d_name;
        if (n[0] == '.' && (n[1] == 0 || (n[1] == '.' && n[2] == 0))) continue;
        names.emplace_back(n);
        if (onProgress && (names.size() & 255) == 0) onProgress(static_cast<std::int64_t>(names.size()));
    }
    ::closedir(dir);
    std::sort(names.begin(), names.end());

    out.entries.reserve(names.size());
    std::int64_t seen = 0;
    for (auto& name : names) {
        struct stat st;
        if (::fstatat(dirFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
            int e = errno;
            if (e == ENOENT) {
                ++out.vanished;
            } else {
                out.statFailures.push_back({std::move(name), e});
            }
        } else {
            out.entries.push_back(EntryInfo::fromStat(std::move(name), st));
        }
        if (onProgress && (++seen & 255) == 0) onProgress(seen);
    }
    return out;
}

}  // namespace ql
