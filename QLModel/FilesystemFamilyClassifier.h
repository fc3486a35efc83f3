#pragma once

#include "QLModel/FilesystemFamily.h"

#include <tl/expected.hpp>

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace ql {

// What a disk probe reports about one device, as far as its filesystem family goes.
struct DeviceFilesystemFacts {
    std::optional<std::string> contentName;         // "Apple_APFS", "Microsoft Basic Data", ...
    std::optional<std::string> filesystemTypeName;  // "ExFAT", "MS-DOS FAT32", ...
    std::optional<std::string> mountPoint;
};

// Decides the filesystem family of a device from its probe facts:
//
//   1. a content name beginning "Apple_APFS" is `apfsContainer`; "Apple_HFS"/"Apple_HFSX" is
//      `hfsPlus`; "Microsoft Basic Data" with a type name is decided by that name (exfat, fat32,
//      ms-dos, ntfs); anything else falls through;
//   2. with a mount point, the mounted filesystem's type name (from the file-system statistics
//      call) decides: apfs, hfs, exfat, msdos, ntfs, or names containing ntfs / exfat; a failing
//      call gives `other`;
//   3. otherwise `other`.
//
// It never yields `apfs`, `smb`, `afp` or `nfs`: those come from the code that describes an
// individual APFS volume or a network share.
class FilesystemFamilyClassifier {
public:
    // The file-system statistics call: the type name of the filesystem mounted at (or holding)
    // the path, or the errno of the failing call.
    using TypeNameCall = std::function<tl::expected<std::string, int>(const std::string& mountPoint)>;

    // The platform's own statistics call by default.
    FilesystemFamilyClassifier();
    explicit FilesystemFamilyClassifier(TypeNameCall typeNameCall);

    FilesystemFamily classify(const DeviceFilesystemFacts& facts) const;

    // Maps a mounted filesystem's type name as step 2 does.
    static FilesystemFamily familyOfMountedTypeName(std::string_view typeName);

    // The platform's statistics call. On macOS it is statfs(2)'s f_fstypename. On Linux the
    // kernel's names are translated to the same vocabulary ("vfat" and "msdos" read "msdos",
    // "hfsplus" reads "hfs", "ntfs3" reads "ntfs") so that the rule above means the same thing.
    static tl::expected<std::string, int> liveTypeName(const std::string& mountPoint);

    // Decodes a NUL-terminated type name held in a buffer of at most 16 bytes, as UTF-8 with
    // invalid sequences replaced by U+FFFD.
    static std::string decodeTypeName(const char* buffer, std::size_t size);

private:
    TypeNameCall typeNameCall_;
};

}  // namespace ql
