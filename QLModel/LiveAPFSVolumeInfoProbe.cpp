#include "QLModel/LiveAPFSVolumeInfoProbe.h"

#include "QLModel/PartitionContentName.h"
#include "QLSupport/Log.h"

#include <algorithm>

namespace ql {
namespace {

std::string uppercased(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c); });
    return text;
}

}  // namespace

asio::awaitable<std::optional<APFSVolumeInfo>> LiveAPFSVolumeInfoProbe::volumeInfo(std::string device) {
    auto info = co_await probe_->describe(device);
    if (!info) {
        Log::f("APFSVolumeInfoProbe", "couldn't read {}: {}", device, info.error().message());
        co_return std::nullopt;
    }
    co_return fromDescription(*info);
}

APFSVolumeInfo LiveAPFSVolumeInfoProbe::fromDescription(const ProbeInfo& info) {
    APFSVolumeInfo out;
    out.groupUUID = info.apfsVolumeGroupUUID;
    if (!info.apfsVolumeRole.empty()) out.role = info.apfsVolumeRole.front();
    out.volumeUUID = info.volumeUUID;
    out.mediumType = info.mediaType;
    const bool apfsContent = info.content && uppercased(*info.content) == PartitionContentName::apfsVolumeContentGUID;
    const bool apfsPersonality =
        info.filesystemPersonality && uppercased(*info.filesystemPersonality).find("APFS") == 0;
    out.isAPFS = apfsContent || (apfsPersonality && !info.partitionMapPartition && !info.wholeDisk.value_or(false));
    return out;
}

}  // namespace ql
