#pragma once

#include <optional>
#include <string>

namespace ql {

// The operating system installed on a volume, read from the volume itself: on a Mac system
// volume "System/Library/CoreServices/SystemVersion.plist" ("ProductVersion",
// "ProductBuildVersion"); on a Linux root filesystem "etc/os-release" ("VERSION_ID", and
// "BUILD_ID" when the distribution has one). Nothing when the volume holds no system.
struct VolumeOSVersion {
    std::string version;
    std::string build;

    static std::optional<VolumeOSVersion> read(const std::string& mountPoint);

    // The value of `key` in an os-release text (quotes removed), or empty.
    static std::string osReleaseValue(const std::string& text, const std::string& key);

    friend bool operator==(const VolumeOSVersion&, const VolumeOSVersion&) = default;
};

}  // namespace ql
