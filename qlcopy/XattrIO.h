#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace ql {

// Where extended attributes are read or written: an open descriptor, or an entry named inside
// an open directory (never following a final symlink).
struct XattrTarget {
    int fd = -1;           // used when >= 0
    int dirFd = -1;        // with `name`, when fd < 0
    const char* name = nullptr;

    static XattrTarget ofFd(int fd) { return {fd, -1, nullptr}; }
    static XattrTarget at(int dirFd, const char* name) { return {-1, dirFd, name}; }
};

// Extended attributes through the platform's calls. Every call returns 0 or an errno value.
// On Linux, POSIX ACLs are the attributes "system.posix_acl_access" and
// "system.posix_acl_default", so copying the attributes copies the ACLs.
class XattrIO {
public:
    static int list(const XattrTarget& target, std::vector<std::string>& names);
    static int get(const XattrTarget& target, const std::string& name, std::string& value);
    static int set(const XattrTarget& target, const std::string& name, const std::string& value);
    static int remove(const XattrTarget& target, const std::string& name);

    // The attribute is an access control list.
    static bool isAcl(std::string_view name);
    // The filesystem does not keep extended attributes (or not this kind).
    static bool isUnsupported(int error);
    // The attribute does not exist (any more).
    static bool isMissing(int error);
    // The attribute is one that only the system manages (never copied, never removed).
    static bool isSystemManaged(std::string_view name);
};

}  // namespace ql
