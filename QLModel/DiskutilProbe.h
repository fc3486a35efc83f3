#pragma once

#include "QLModel/VolumeProbe.h"
#include "QLSupport/PropertyList.h"
#include "QLSupport/ShellRunner.h"

#include <string_view>

namespace ql {

// The live volume probe on macOS: runs /usr/sbin/diskutil with property-list output ("list
// -plist", "info -plist DEVICE", "apfs list -plist") through a `ShellRunner` and maps the
// dictionaries into the probe records.
//
// Failures are typed: a tool that can't be started or exits non-zero is `processFailed`, output
// that isn't a property-list dictionary is `plistParseFailed`, and a missing "DeviceIdentifier"
// is `missingField`. Every other key is optional: absent keys and values of the wrong type read
// as absent, absent arrays as empty. Physical stores are accepted in every shape the tool
// writes them: plain device names, or dictionaries naming the device under "DeviceIdentifier"
// or "APFSPhysicalStore".
class DiskutilProbe final : public VolumeProbe {
public:
    static constexpr std::string_view executable = "/usr/sbin/diskutil";

    explicit DiskutilProbe(ShellRunner& runner) : runner_(runner) {}

    asio::awaitable<ListResult> listDisks() override;
    asio::awaitable<InfoResult> describe(std::string device) override;
    asio::awaitable<ContainersResult> listAPFSContainers() override;

    // The steps after running the tool, usable on canned output.
    static tl::expected<PlistDictionary, DiskutilError> outputDictionary(const ShellRunner::Outcome& outcome);
    static tl::expected<ProbeList, DiskutilError> mapList(const PlistDictionary& root);
    static tl::expected<ProbeInfo, DiskutilError> mapInfo(const PlistDictionary& root);
    static tl::expected<std::vector<ProbeAPFSContainerDetail>, DiskutilError> mapAPFSContainers(
        const PlistDictionary& root);

private:
    asio::awaitable<tl::expected<PlistDictionary, DiskutilError>> runTool(std::vector<std::string> arguments);

    ShellRunner& runner_;
};

}  // namespace ql
