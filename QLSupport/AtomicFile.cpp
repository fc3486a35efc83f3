#include "QLSupport/AtomicFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace ql {
namespace {

struct FdCloser {
    int fd = -1;
    ~FdCloser() {
        if (fd >= 0) ::close(fd);
    }
};

}  // namespace

std::string AtomicWriteError::message() const {
    return fmt::format("could not write {} ({} failed: {})", path.string(), step, std::strerror(code));
}

int AtomicFile::syncDirectory(const std::filesystem::path& directory) {
    int fd = ::open(directory.empty() ? "." : directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return errno;
    int rc = ::fsync(fd) == 0 ? 0 : errno;
    ::close(fd);
    // Some filesystems refuse fsync on a directory; the rename is still in place.
    return (rc == EINVAL || rc == EROFS) ? 0 : rc;
}

tl::expected<void, AtomicWriteError> AtomicFile::write(const std::filesystem::path& path, std::string_view bytes,
                                                       mode_t mode) {
    const auto directory = path.parent_path();
    std::string pattern = (directory / ("." + path.filename().string() + ".tmp.XXXXXX")).string();
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');

    FdCloser file{::mkostemp(name.data(), O_CLOEXEC)};
    if (file.fd < 0) return tl::unexpected(AtomicWriteError{"open", errno, path});
    const std::filesystem::path temporary(name.data());
    auto failWith = [&](const char* step) {
        int code = errno;
        ::unlink(temporary.c_str());
        return tl::unexpected(AtomicWriteError{step, code, path});
    };

    if (::fchmod(file.fd, mode) != 0) return failWith("fchmod");
    const char* p = bytes.data();
    std::size_t left = bytes.size();
    while (left > 0) {
        ssize_t n = ::write(file.fd, p, left);
        if (n < 0) {
            if (errno == EINTR) continue;
            return failWith("write");
        }
        p += n;
        left -= static_cast<std::size_t>(n);
    }
    if (::fsync(file.fd) != 0) return failWith("fsync");
    if (::close(file.fd) != 0) {
        file.fd = -1;
        return failWith("close");
    }
    file.fd = -1;
    if (::rename(temporary.c_str(), path.c_str()) != 0) return failWith("rename");
    if (int rc = syncDirectory(directory); rc != 0) {
        return tl::unexpected(AtomicWriteError{"fsync-directory", rc, path});
    }
    return {};
}

tl::expected<std::string, int> AtomicFile::read(const std::filesystem::path& path) {
    FdCloser file{::open(path.c_str(), O_RDONLY | O_CLOEXEC)};
    if (file.fd < 0) return tl::unexpected(errno);
    std::string out;
    char buffer[65536];
    for (;;) {
        ssize_t n = ::read(file.fd, buffer, sizeof buffer);
        if (n < 0) {
            if (errno == EINTR) continue;
            return tl::unexpected(errno);
        }
        if (n == 0) break;
        out.append(buffer, static_cast<std::size_t>(n));
    }
    return out;
}

}  // namespace ql
