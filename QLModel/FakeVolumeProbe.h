#pragma once

#include "QLModel/VolumeProbe.h"

#include <map>
#include <mutex>
#include <optional>

namespace ql {

// A volume probe answering from tables, for tests. Each operation can be made to fail: the
// listing and the container listing as a whole, a description per device. Describing a device
// that has no entry fails with `deviceUnreadable`, so a test that forgets one sees it.
class FakeVolumeProbe final : public VolumeProbe {
public:
    asio::awaitable<ListResult> listDisks() override;
    asio::awaitable<InfoResult> describe(std::string device) override;
    asio::awaitable<ContainersResult> listAPFSContainers() override;

    // The devices described so far, in order.
    std::vector<std::string> describedDevices() const;
    int listCount() const;

    // Tables (set them before use; not guarded against concurrent change).
    ProbeList list;
    std::map<std::string, ProbeInfo> infos;
    std::vector<ProbeAPFSContainerDetail> containers;
    std::optional<DiskutilError> listFailure;
    std::optional<DiskutilError> containersFailure;
    std::map<std::string, DiskutilError> describeFailures;

private:
    mutable std::mutex lock_;
    std::vector<std::string> described_;  // guarded by lock_
    int listCount_ = 0;                   // guarded by lock_
};

}  // namespace ql
