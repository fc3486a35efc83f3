#include "qlcopy/AclIO.h"

namespace ql {

// POSIX ACLs are the attributes system.posix_acl_access and system.posix_acl_default: the
// attribute copy carries them, and the attribute comparison sees their differences.
int AclIO::copy(const XattrTarget&, const XattrTarget&) { return 0; }

bool AclIO::differ(const XattrTarget&, const XattrTarget&) { return false; }

}  // namespace ql
