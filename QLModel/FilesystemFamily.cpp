#include "QLModel/FilesystemFamily.h"

namespace ql {
namespace {

constexpr std::array<std::string_view, 10> kNames{"apfsContainer", "apfs", "hfsPlus", "exfat", "fat32",
                                                  "ntfs",          "smb",  "afp",     "nfs",   "other"};
constexpr std::array<std::string_view, 10> kWireTokens{"apfs", "apfsvolume", "hfs+", "exfat", "fat32",
                                                       "ntfs", "smb",        "afp",  "nfs",   "other"};

}  // namespace

std::string_view caseName(FilesystemFamily family) { return kNames[static_cast<std::size_t>(family)]; }

std::optional<FilesystemFamily> filesystemFamilyNamed(std::string_view name) {
    for (std::size_t i = 0; i < kNames.size(); ++i) {
        if (kNames[i] == name) return static_cast<FilesystemFamily>(i);
    }
    return std::nullopt;
}

std::string_view wireToken(FilesystemFamily family) { return kWireTokens[static_cast<std::size_t>(family)]; }

FilesystemFamily filesystemFamilyFromWireToken(std::string_view token) {
    for (std::size_t i = 0; i < kWireTokens.size(); ++i) {
        if (kWireTokens[i] == token) return static_cast<FilesystemFamily>(i);
    }
    return FilesystemFamily::other;
}

Json JsonCoder<FilesystemFamily>::encode(FilesystemFamily value) { return std::string(caseName(value)); }

tl::expected<FilesystemFamily, ModelDecodeError> JsonCoder<FilesystemFamily>::decode(const Json& json,
                                                                                     const std::string& path) {
    return decodeNamedCase<FilesystemFamily>(json, path, kNames);
}

}  // namespace ql
