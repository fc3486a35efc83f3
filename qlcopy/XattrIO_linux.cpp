#include "qlcopy/XattrIO.h"

#include <fmt/format.h>

#include <sys/xattr.h>

#include <cerrno>

namespace ql {
namespace {

// An entry inside an open directory, reachable by a short path whatever the directory's depth.
std::string procPath(const XattrTarget& t) { return fmt::format("/proc/self/fd/{}/{}", t.dirFd, t.name); }

}  // namespace

int XattrIO::list(const XattrTarget& t, std::vector<std::string>& names) {
    names.clear();
    std::string path = t.fd >= 0 ? std::string() : procPath(t);
    std::string buffer;
    for (int attempt = 0; attempt < 4; ++attempt) {
        ssize_t size = t.fd >= 0 ? ::flistxattr(t.fd, nullptr, 0) : ::llistxattr(path.c_str(), nullptr, 0);
        if (size < 0) return errno;
        if (size == 0) return 0;
        buffer.resize(static_cast<size_t>(size));
        ssize_t n = t.fd >= 0 ? ::flistxattr(t.fd, buffer.data(), buffer.size())
                              : ::llistxattr(path.c_str(), buffer.data(), buffer.size());
        if (n < 0) {
            if (errno == ERANGE) continue;  // grew in between
            return errno;
        }
        size_t start = 0;
        for (size_t i = 0; i < static_cast<size_t>(n); ++i) {
            if (buffer[i] == '\0') {
                if (i > start) names.emplace_back(buffer.data() + start, i - start);
                start = i + 1;
            }
        }
        return 0;
    }
    return ERANGE;
}

int XattrIO::get(const XattrTarget& t, const std::string& name, std::string& value) {
    std::string path = t.fd >= 0 ? std::string() : procPath(t);
    for (int attempt = 0; attempt < 4; ++attempt) {
        ssize_t size = t.fd >= 0 ? ::fgetxattr(t.fd, name.c_str(), nullptr, 0)
                                 : ::lgetxattr(path.c_str(), name.c_str(), nullptr, 0);
        if (size < 0) return errno;
        value.resize(static_cast<size_t>(size));
        if (size == 0) return 0;
        ssize_t n = t.fd >= 0 ? ::fgetxattr(t.fd, name.c_str(), value.data(), value.size())
                              : ::lgetxattr(path.c_str(), name.c_str(), value.data(), value.size());
        if (n < 0) {
            if (errno == ERANGE) continue;
            return errno;
        }
        value.resize(static_cast<size_t>(n));
        return 0;
    }
    return ERANGE;
}

int XattrIO::set(const XattrTarget& t, const std::string& name, const std::string& value) {
    int r = t.fd >= 0 ? ::fsetxattr(t.fd, name.c_str(), value.data(), value.size(), 0)
                      : ::lsetxattr(procPath(t).c_str(), name.c_str(), value.data(), value.size(), 0);
    return r == 0 ? 0 : errno;
}

int XattrIO::remove(const XattrTarget& t, const std::string& name) {
    int r = t.fd >= 0 ? ::fremovexattr(t.fd, name.c_str()) : ::lremovexattr(procPath(t).c_str(), name.c_str());
    return r == 0 ? 0 : errno;
}

bool XattrIO::isAcl(std::string_view name) {
    return name == "system.posix_acl_access" || name == "system.posix_acl_default";
}

bool XattrIO::isMissing(int error) { return error == ENODATA || error == ENOENT; }

bool XattrIO::isUnsupported(int error) { return error == ENOTSUP || error == EOPNOTSUPP; }

// Security labels are assigned by the kernel's security modules; file capabilities
// ("security.capability") are ordinary data and are copied.
bool XattrIO::isSystemManaged(std::string_view name) {
    return name == "security.selinux" || name == "security.apparmor" || name == "security.ima" ||
           name == "security.evm" || name == "security.SMACK64";
}

}  // namespace ql
