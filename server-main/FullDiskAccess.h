#pragma once

namespace ql {

// Whether the server may read every user's files. macOS guards user data behind the Full Disk
// Access privilege; Linux has no such gate, so a server there always has it.
struct FullDiskAccess {
    static bool granted();
};

}  // namespace ql
