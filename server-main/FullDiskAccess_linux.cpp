#include "server-main/FullDiskAccess.h"

namespace ql {

bool FullDiskAccess::granted() { return true; }

}  // namespace ql
