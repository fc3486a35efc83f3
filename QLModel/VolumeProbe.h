#pragma once

#include "QLModel/DiskutilError.h"
#include "QLModel/ProbeAPFSContainerDetail.h"
#include "QLModel/ProbeInfo.h"
#include "QLModel/ProbeList.h"

#include <asio.hpp>
#include <tl/expected.hpp>

#include <string>
#include <vector>

namespace ql {

// The disk facts the resolver and the copy server need: every disk and partition, one device's
// facts, and the APFS containers. `DiskutilProbe` answers from the platform's disk tool on macOS,
// `LinuxBlockDeviceProbe` from block devices on Linux, `FakeVolumeProbe` from tables in tests.
class VolumeProbe {
public:
    using ListResult = tl::expected<ProbeList, DiskutilError>;
    using InfoResult = tl::expected<ProbeInfo, DiskutilError>;
    using ContainersResult = tl::expected<std::vector<ProbeAPFSContainerDetail>, DiskutilError>;

    virtual ~VolumeProbe() = default;

    virtual asio::awaitable<ListResult> listDisks() = 0;
    virtual asio::awaitable<InfoResult> describe(std::string device) = 0;
    virtual asio::awaitable<ContainersResult> listAPFSContainers() = 0;
};

}  // namespace ql
