#pragma once

#include <optional>
#include <string>

namespace ql {

// Whether the storage under a path is solid state (true), spinning (false), or unknown.
// Linux reads the block device's queue/rotational flag in sysfs; memory filesystems count as
// solid state. macOS asks the I/O registry for the medium type.
class MediumProbe {
public:
    static std::optional<bool> isSolidState(const std::string& path);
};

}  // namespace ql
