#include "qlcopy/AclIO.h"

#include <fcntl.h>
#include <sys/acl.h>
#include <sys/param.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace ql {
namespace {

bool pathOf(const XattrTarget& t, std::string& path) {
    char dir[MAXPATHLEN];
    if (::fcntl(t.dirFd, F_GETPATH, dir) != 0) return false;
    path = dir;
    path += '/';
    path += t.name;
    return true;
}

acl_t readAcl(const XattrTarget& t) {
    if (t.fd >= 0) return ::acl_get_fd_np(t.fd, ACL_TYPE_EXTENDED);
    std::string path;
    if (!pathOf(t, path)) return nullptr;
    return ::acl_get_link_np(path.c_str(), ACL_TYPE_EXTENDED);
}

std::string aclText(const XattrTarget& t) {
    acl_t acl = readAcl(t);
    if (!acl) return {};
    std::string out;
    ssize_t length = 0;
    if (char* text = ::acl_to_text(acl, &length)) {
        out.assign(text, static_cast<size_t>(length));
        ::acl_free(text);
    }
    ::acl_free(acl);
    return out;
}

}  // namespace

int AclIO::copy(const XattrTarget& from, const XattrTarget& to) {
    acl_t acl = readAcl(from);
    if (!acl) {
        if (errno == ENOENT) return 0;  // no extended ACL on the source
        return errno;
    }
    int r = 0;
    if (to.fd >= 0) {
        r = ::acl_set_fd_np(to.fd, acl, ACL_TYPE_EXTENDED);
    } else {
        std::string path;
        r = pathOf(to, path) ? ::acl_set_link_np(path.c_str(), ACL_TYPE_EXTENDED, acl) : -1;
    }
    int e = r == 0 ? 0 : errno;
    ::acl_free(acl);
    return e;
}

bool AclIO::differ(const XattrTarget& a, const XattrTarget& b) { return aclText(a) != aclText(b); }

}  // namespace ql
