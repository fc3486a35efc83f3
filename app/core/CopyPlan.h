#pragma once

#include "QLProtocol/proto/runs.pb.h"
#include "QLProtocol/proto/tiles.pb.h"
#include "QLProtocol/proto/volumes.pb.h"
#include "app/core/Tile.h"

#include <tl/expected.hpp>

#include <optional>
#include <string>
#include <vector>

namespace ql {

// What `quillo copy SOURCE DEST` decides before it asks the server for anything beyond the
// volume list and the job list: the two folders as absolute paths, that they make sense as a
// copy (the source is a folder that exists, the destination is a folder or can be created in
// one, neither lies inside the other), the mounted volume that holds each, the job for that
// pair (an existing one, or a new one to create), and the copy request that runs it.
struct CopyPlan {
    // One side of the copy.
    struct Endpoint {
        std::string path;     // absolute, links resolved
        bool exists = false;  // the destination may still have to be created
        ql4::transport::v1::VolumeSummary volume;
        std::string subpath;  // the folder inside the volume, relative to its mount point
    };

    // The two folders as the user typed them, relative paths taken from `workingDirectory`.
    // Errors are sentences for the user.
    static tl::expected<std::pair<std::string, std::string>, std::string> checkPaths(
        const std::string& source, const std::string& destination, const std::string& workingDirectory);

    // The mounted volume whose mount point holds `path` most closely; nothing when none does.
    static std::optional<ql4::transport::v1::VolumeSummary> volumeHolding(
        const std::string& path, const std::vector<ql4::transport::v1::VolumeSummary>& volumes);
    // The folder relative to the mount point: "" for the mount point itself.
    static std::string subpathWithin(const std::string& path, const std::string& mountPoint);

    // A job side as the client sends it to the server, which completes it from the live volume.
    static ql4::transport::v1::VolumeBinding binding(const Endpoint& endpoint);
    // Whether two bindings name the same folder on the same volume.
    static bool sameFolder(const ql4::transport::v1::VolumeBinding& a, const ql4::transport::v1::VolumeBinding& b);

    // The job that copies this pair, if there is one.
    static std::optional<ql4::transport::v1::CopyTile> findJob(const std::vector<ql4::transport::v1::CopyTile>& jobs,
                                                                const ql4::transport::v1::VolumeBinding& source,
                                                                const ql4::transport::v1::VolumeBinding& destination);

    // A new job's name: "Documents → backup" (the folders' names, or the volumes' names for
    // whole volumes).
    static std::string jobName(const Endpoint& source, const Endpoint& destination);

    // A new job for the pair.
    static ql4::transport::v1::CopyTile newJob(const Endpoint& source, const Endpoint& destination, std::string name,
                                                Tile::CopyMode mode, const std::string& ruleFile);

    // "smart", "newer", "different" → the copy mode.
    static std::optional<Tile::CopyMode> modeNamed(const std::string& word);

    // The run request for a stored job. `source` and `destination` are the job's volume
    // references; the live paths, devices and volume UUIDs go along as hints.
    static ql4::transport::v1::CopyRequest request(const ql4::transport::v1::CopyTile& job,
                                                   const ql4::transport::v1::VolumeRef& source,
                                                   const ql4::transport::v1::VolumeRef& destination,
                                                   const Endpoint& sourceNow, const Endpoint& destinationNow,
                                                   bool dryRun, const std::string& ruleFilePath,
                                                   const std::vector<std::string>& ruleSearchDirectories);
};

}  // namespace ql
