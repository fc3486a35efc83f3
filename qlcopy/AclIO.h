#pragma once

#include "qlcopy/XattrIO.h"

namespace ql {

// Access control lists that the platform keeps apart from extended attributes. On Linux the
// POSIX ACLs are extended attributes and travel with them, so there is nothing extra to do;
// on macOS the extended ACL is read and written with the acl_* calls.
class AclIO {
public:
    // Copies the list from one item to another; returns 0 or an errno value.
    static int copy(const XattrTarget& from, const XattrTarget& to);
    // Whether the two items' lists differ (false where ACLs are attributes).
    static bool differ(const XattrTarget& a, const XattrTarget& b);
};

}  // namespace ql
