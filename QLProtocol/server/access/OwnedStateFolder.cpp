#include "QLProtocol/server/access/OwnedStateFolder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <cerrno>
#include <cstring>

namespace ql {

namespace {

std::string errnoText(int code) { return fmt::format("{} (errno={})", std::strerror(code), code); }

struct Fd {
    int fd = -1;
    explicit Fd(int f) : fd(f) {}
    ~Fd() {
        if (fd >= 0) ::close(fd);
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
};

}  // namespace

tl::expected<OwnedStateFolder, std::string> OwnedStateFolder::prepare(const std::filesystem::path& parent, uid_t uid,
                                                                       gid_t gid) {
    std::error_code error;
    std::filesystem::create_directories(parent, error);
    if (error) return tl::unexpected(fmt::format("could not create {}: {}", parent.string(), error.message()));
    // The user must be able to pass through the server's folders to reach their own, and see
    // nothing on the way.
    for (const auto& folder : {parent.parent_path(), parent}) {
        struct stat st {};
        if (::lstat(folder.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && st.st_uid == ::geteuid()) {
            ::chmod(folder.c_str(), (st.st_mode & 07777) | S_IXUSR | S_IXGRP | S_IXOTH);
        }
    }
    const auto path = parent / std::to_string(uid);
    if (::mkdir(path.c_str(), 0700) == 0) {
        if (::lchown(path.c_str(), uid, gid) != 0) {
            const int code = errno;
            ::rmdir(path.c_str());
            return tl::unexpected(fmt::format("could not hand {} to uid {}: {}", path.string(), uid, errnoText(code)));
        }
    } else if (errno != EEXIST) {
        return tl::unexpected(fmt::format("could not create {}: {}", path.string(), errnoText(errno)));
    }
    OwnedStateFolder folder(path, uid, gid);
    auto opened = folder.open();
    if (!opened) return tl::unexpected(opened.error());
    ::close(*opened);
    return folder;
}

tl::expected<int, std::string> OwnedStateFolder::open() const {
    const int fd = ::open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return tl::unexpected(fmt::format("{} is not a folder of its own: {}", path_.string(), errnoText(errno)));
    struct stat st {};
    if (::fstat(fd, &st) != 0 || st.st_uid != uid_ || (st.st_mode & S_IWOTH) != 0) {
        ::close(fd);
        return tl::unexpected(fmt::format("{} does not belong to uid {} alone; it is not used", path_.string(), uid_));
    }
    return fd;
}

tl::expected<void, std::string> OwnedStateFolder::write(const std::string& name, const std::string& bytes) const {
    auto folder = open();
    if (!folder) return tl::unexpected(folder.error());
    Fd dir(*folder);
    if (::unlinkat(dir.fd, name.c_str(), 0) != 0 && errno != ENOENT) {
        return tl::unexpected(fmt::format("could not replace {}: {}", file(name).string(), errnoText(errno)));
    }
    Fd out(::openat(dir.fd, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (out.fd < 0) return tl::unexpected(fmt::format("could not create {}: {}", file(name).string(), errnoText(errno)));
    std::size_t done = 0;
    while (done < bytes.size()) {
        const auto n = ::write(out.fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return tl::unexpected(fmt::format("could not write {}: {}", file(name).string(), errnoText(errno)));
        done += static_cast<std::size_t>(n);
    }
    if (::fchown(out.fd, uid_, gid_) != 0) {
        return tl::unexpected(fmt::format("could not hand {} to uid {}: {}", file(name).string(), uid_, errnoText(errno)));
    }
    return {};
}

tl::expected<std::string, int> OwnedStateFolder::read(const std::string& name, std::size_t limit) const {
    auto folder = open();
    if (!folder) return tl::unexpected(EPERM);
    Fd dir(*folder);
    Fd in(::openat(dir.fd, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (in.fd < 0) return tl::unexpected(errno);
    struct stat st {};
    if (::fstat(in.fd, &st) != 0) return tl::unexpected(errno);
    if (!S_ISREG(st.st_mode) || st.st_uid != uid_ || st.st_nlink != 1) return tl::unexpected(EPERM);
    if (static_cast<std::size_t>(st.st_size) > limit) return tl::unexpected(EFBIG);
    std::string bytes;
    char buffer[65536];
    for (;;) {
        const auto n = ::read(in.fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return tl::unexpected(errno);
        if (n == 0) break;
        bytes.append(buffer, static_cast<std::size_t>(n));
        if (bytes.size() > limit) return tl::unexpected(EFBIG);
    }
    return bytes;
}

void OwnedStateFolder::remove(const std::string& name) const {
    auto folder = open();
    if (!folder) return;
    Fd dir(*folder);
    ::unlinkat(dir.fd, name.c_str(), 0);
}

}  // namespace ql
