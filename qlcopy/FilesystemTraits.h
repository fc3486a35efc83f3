#pragma once

#include <cstdint>
#include <string>

namespace ql {

// What the engine needs to know about the filesystem holding an open directory.
struct FilesystemTraits {
    std::string typeName;                 // "ext4", "msdos", "tmpfs", ... ("unknown" when not known)
    std::int64_t timeGranularityNs = 1;   // the precision of modification times it keeps

    static FilesystemTraits of(int fd);

    // Two modification times are the same to the precision both filesystems keep. A time with
    // no fraction of a second matches any time within that second, since some filesystems drop
    // the fraction.
    static bool sameTime(const struct timespec& a, const struct timespec& b, std::int64_t granularityNs);
};

}  // namespace ql
