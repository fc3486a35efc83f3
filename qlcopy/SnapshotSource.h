#pragma once

#include <tl/expected.hpp>

#include <string>

namespace ql {

// With --snapshot, the source is read from the snapshot's mount at the source's path relative
// to the root of the volume that holds it: source /Volumes/Data/Users/ann with the volume
// mounted at /Volumes/Data and its snapshot at /tmp/snap is read from /tmp/snap/Users/ann.
class SnapshotSource {
public:
    // The mount point of the filesystem holding `path` (the highest ancestor on the same device).
    static tl::expected<std::string, std::string> volumeRoot(const std::string& path);
    // Where to read `source` from inside the snapshot mounted at `snapshotMount`.
    static tl::expected<std::string, std::string> resolve(const std::string& source, const std::string& snapshotMount);
};

}  // namespace ql
