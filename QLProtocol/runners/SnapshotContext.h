#pragma once

#include <cstdint>
#include <string>

namespace ql {

// The source snapshot the engine reads from instead of the live source: where it is mounted,
// and the file-system event identifier at which it was taken, from which the engine reconciles
// change journals.
struct SnapshotContext {
    std::string mountPath;
    std::uint64_t snapEventAnchor = 0;

    friend bool operator==(const SnapshotContext&, const SnapshotContext&) = default;
};

}  // namespace ql
