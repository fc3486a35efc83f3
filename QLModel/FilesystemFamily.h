#pragma once

#include "QLModel/JsonCoder.h"

#include <optional>
#include <string_view>

namespace ql {

// Which kind of filesystem a volume holds, in this case order. JSON value = the case name.
// Where the family crosses the client/server protocol it travels as a short wire token instead;
// note the deliberate shift there: "apfs" is `apfsContainer` (an APFS filesystem as a whole) and a
// single APFS volume is "apfsvolume".
enum class FilesystemFamily {
    apfsContainer,
    apfs,
    hfsPlus,
    exfat,
    fat32,
    ntfs,
    smb,
    afp,
    nfs,
    other,
};

inline constexpr FilesystemFamily kAllFilesystemFamilies[] = {
    FilesystemFamily::apfsContainer, FilesystemFamily::apfs, FilesystemFamily::hfsPlus, FilesystemFamily::exfat,
    FilesystemFamily::fat32,         FilesystemFamily::ntfs, FilesystemFamily::smb,     FilesystemFamily::afp,
    FilesystemFamily::nfs,           FilesystemFamily::other,
};

std::string_view caseName(FilesystemFamily family);
std::optional<FilesystemFamily> filesystemFamilyNamed(std::string_view name);

// "apfs", "apfsvolume", "hfs+", "exfat", "fat32", "ntfs", "smb", "afp", "nfs", "other".
std::string_view wireToken(FilesystemFamily family);
// Case-sensitive exact match against the same table; an unknown token reads as `other`.
FilesystemFamily filesystemFamilyFromWireToken(std::string_view token);

template <>
struct JsonCoder<FilesystemFamily> {
    static Json encode(FilesystemFamily value);
    static tl::expected<FilesystemFamily, ModelDecodeError> decode(const Json& json, const std::string& path);
};

}  // namespace ql
