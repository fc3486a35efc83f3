#pragma once

#include "QLModel/DiskImageBackingProbe.h"
#include "QLModel/FilesystemFamilyClassifier.h"
#include "QLModel/HardwareSerialProbe.h"
#include "QLModel/VolumeProbe.h"
#include "QLSupport/Clock.h"
#include "QLSupport/Uuid.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace ql {

// A mounted network share: where it is mounted, its share URL, and its volume UUID when known.
struct NetworkMountEntry {
    std::string mountPoint;
    std::string shareURL;
    std::optional<Uuid> volumeUUID;
    friend bool operator==(const NetworkMountEntry&, const NetworkMountEntry&) = default;
};

// An attached disk image: its file, the device nodes it was attached as (whole disk first), and
// the GUID recorded inside the image when known.
struct AttachedImageEntry {
    std::string imagePath;
    std::vector<std::string> devices;
    std::optional<Uuid> internalGUID;
    friend bool operator==(const AttachedImageEntry&, const AttachedImageEntry&) = default;
};

// Everything a `VolumeResolver` reaches the system through. All of it is injectable so that the
// resolver's decisions run without a live system; `live()` gives the platform's own
// implementations. Operations are called from the resolver's strand and must be safe to call
// from any thread.
//
// A collaborator left empty makes the key kinds that need it unresolvable (`unsupportedKey`,
// naming what is missing): the disk probe and serial probe for device keys, the attached-image
// listing and file-existence check for disk images, the network-mount listing for shares and
// for images kept on shares. The optional ones (host equivalence, canonical paths, the backing
// probe, the backup-store check) are simply skipped when empty.
struct VolumeResolverEnvironment {
    // Disk scans: all disks and partitions, one device's facts, APFS containers.
    std::shared_ptr<VolumeProbe> probe;
    // A device's hardware serial number.
    std::shared_ptr<HardwareSerialProbe> serialProbe;
    // How many more times an unreadable serial is read before giving up (never negative), and
    // the pause before each of those reads.
    std::int64_t serialRetryAttempts = 2;
    double serialRetryDelaySeconds = 1.0;
    // The current network mounts, in mount-table order.
    std::function<std::vector<NetworkMountEntry>()> networkMounts;
    // Whether two host names denote the same server.
    std::function<bool(const std::string&, const std::string&)> networkHostsEquivalent;
    // The attached disk images.
    std::function<std::vector<AttachedImageEntry>()> attachedImages;
    // Whether a device is backed by a disk image, and which file.
    std::shared_ptr<DiskImageBackingProbe> imageBackingProbe;
    // Resolves links (and case) of image-file paths; absent when the path can't be resolved.
    std::function<std::optional<std::string>(const std::string&)> canonicalPathAtPath;
    // Existence of the image file.
    std::function<bool(const std::string&)> fileExistsAtPath;
    // Host names already proven to be aliases of one another: each entry is a pair of
    // lower-cased names, sorted and joined with a single NUL character (see `hostAliasPair`).
    std::set<std::string> verifiedNetworkHostAliases;
    // Whether the volume mounted at a path holds a backup store of the platform's own backup
    // facility.
    std::function<bool(const std::string& mountPoint)> hasTimeMachine;
    // The mounted filesystem's type name (the classifier's statistics call).
    FilesystemFamilyClassifier::TypeNameCall filesystemTypeName;
    // "When" for `observedAt`, and the pause between serial reads. Live ones when empty.
    std::shared_ptr<Clock> clock;
    std::shared_ptr<Sleeper> sleeper;

    // The platform's implementations of every collaborator but the two probes, which the caller
    // passes (they need a process runner or a blocking pool).
    static VolumeResolverEnvironment live(std::shared_ptr<VolumeProbe> probe,
                                          std::shared_ptr<HardwareSerialProbe> serialProbe);

    // An entry of `verifiedNetworkHostAliases` for two host names.
    static std::string hostAliasPair(std::string_view a, std::string_view b);

    // Live building blocks, usable on their own.
    // Top-level markers of the platform's backup store: ".HFS+ Private Directory Data" (with or
    // without its trailing carriage return) and a "Backups.backupdb" store folder.
    static bool liveHasTimeMachine(const std::string& mountPoint);
    static std::optional<std::string> liveCanonicalPath(const std::string& path);
    static bool liveFileExists(const std::string& path);
    // Two host names are equivalent when they resolve to a common address.
    static bool liveNetworkHostsEquivalent(const std::string& a, const std::string& b);
    // Platform files: the mount table's network shares, and the attached disk images.
    static std::vector<NetworkMountEntry> liveNetworkMounts();
    static std::vector<AttachedImageEntry> liveAttachedImages();
    static std::shared_ptr<DiskImageBackingProbe> liveImageBackingProbe();

    // The share URL of a network mount, from its filesystem type and mount source: SMB sources
    // "//[user@]host/share" give "smb://…", NFS sources "host:/export" give "nfs://host/export",
    // AFP sources keep their "afp://" URL. Absent for anything else.
    static std::optional<std::string> shareURLFromMountSource(std::string_view type, std::string_view source);
    // The attached images listed by `hdiutil info -plist`: each image's "image-path" and the
    // "dev-entry" of its "system-entities", whole disk first.
    static std::vector<AttachedImageEntry> attachedImagesFromHdiutilInfo(std::string_view plist);
};

}  // namespace ql
