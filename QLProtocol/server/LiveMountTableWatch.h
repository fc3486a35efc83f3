#pragma once

#include "QLProtocol/server/MountTableWatch.h"

#include <asio.hpp>

#include <memory>
#include <string>

namespace ql {

// The platform's mount-table watch.
//
// Linux: /proc/self/mountinfo signals every change of the mount namespace as an exceptional
// condition (POLLPRI) on an open descriptor; the watch waits for it on the given executor and
// calls back once per wake-up. macOS: not available in this build (volume appearance there
// comes from Disk Arbitration); `start` says so.
class LiveMountTableWatch final : public MountTableWatch {
public:
    explicit LiveMountTableWatch(asio::any_io_executor executor, std::string mountInfo = "/proc/self/mountinfo");
    ~LiveMountTableWatch() override;

    tl::expected<void, std::string> start(std::function<void()> changed) override;
    void stop() override;

private:
    struct State;
    asio::any_io_executor executor_;
    std::string mountInfo_;
    std::shared_ptr<State> state_;
};

}  // namespace ql
