#include "QLModel/FakeVolumeProbe.h"

namespace ql {

asio::awaitable<VolumeProbe::ListResult> FakeVolumeProbe::listDisks() {
    {
        std::lock_guard guard(lock_);
        ++listCount_;
    }
    if (listFailure) co_return tl::unexpected(*listFailure);
    co_return list;
}

asio::awaitable<VolumeProbe::InfoResult> FakeVolumeProbe::describe(std::string device) {
    {
        std::lock_guard guard(lock_);
        described_.push_back(device);
    }
    if (auto failure = describeFailures.find(device); failure != describeFailures.end()) {
        co_return tl::unexpected(failure->second);
    }
    auto found = infos.find(device);
    if (found == infos.end()) {
        co_return tl::unexpected(DiskutilError::deviceUnreadable(device, "no such device in the fake probe"));
    }
    co_return found->second;
}

asio::awaitable<VolumeProbe::ContainersResult> FakeVolumeProbe::listAPFSContainers() {
    if (containersFailure) co_return tl::unexpected(*containersFailure);
    co_return containers;
}

std::vector<std::string> FakeVolumeProbe::describedDevices() const {
    std::lock_guard guard(lock_);
    return described_;
}

int FakeVolumeProbe::listCount() const {
    std::lock_guard guard(lock_);
    return listCount_;
}

}  // namespace ql
