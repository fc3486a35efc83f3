#pragma once

#include "QLModel/APFSVolumeInfoProbe.h"
#include "QLModel/VolumeProbe.h"

#include <memory>

namespace ql {

// APFS volume facts from the platform's volume probe: the description of the device gives its
// volume group, first role, volume UUID and medium type; it is an APFS volume when its content
// is the APFS volume content GUID or its filesystem is APFS.
class LiveAPFSVolumeInfoProbe final : public APFSVolumeInfoProbe {
public:
    explicit LiveAPFSVolumeInfoProbe(std::shared_ptr<VolumeProbe> probe) : probe_(std::move(probe)) {}

    asio::awaitable<std::optional<APFSVolumeInfo>> volumeInfo(std::string device) override;

    static APFSVolumeInfo fromDescription(const ProbeInfo& info);

private:
    std::shared_ptr<VolumeProbe> probe_;
};

}  // namespace ql
