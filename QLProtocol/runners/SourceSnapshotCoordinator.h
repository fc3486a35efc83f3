#pragma once

#include <asio.hpp>
#include <tl/expected.hpp>

#include <cstdint>
#include <string>

namespace ql {

// Gives runs a read-only snapshot of their source volume, so that a backup is consistent while
// files change; runs that copy the same source at about the same time share one snapshot
// through leases, and the snapshot goes away when the last lease is released.
class SourceSnapshotCoordinator {
public:
    // The source volume to snapshot.
    struct Source {
        std::string bsdDevice;
        std::string mountPath;
        std::string displayName;
    };

    // What a run receives: the snapshot, where it is mounted, the file-system event position at
    // which it was taken, the volume it is of, and the lease to release.
    struct Handle {
        std::string snapshotName;
        std::string mountPath;
        std::uint64_t eventID = 0;
        std::string ofDevice;
        std::uint64_t lease = 0;
    };

    // Why there is no snapshot: the source cannot be snapshotted at all, or this time the
    // snapshot could not be made or mounted.
    struct Unavailable {
        bool notSnapshottable = false;
        std::string reason;
    };

    virtual ~SourceSnapshotCoordinator() = default;

    virtual asio::awaitable<tl::expected<Handle, Unavailable>> acquire(Source source) = 0;
    virtual asio::awaitable<void> release(std::uint64_t lease) = 0;
};

}  // namespace ql
