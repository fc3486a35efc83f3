#pragma once

#include "QLProtocol/runners/MountCoordinator.h"

namespace ql {

// For builds that cannot mount volumes themselves: nothing is ever mounted, so there is nothing
// to restore, and a run that needs a volume mounted is refused with a sentence saying so.
class NoOpMountCoordinator final : public MountCoordinator {
public:
    asio::awaitable<tl::expected<std::string, std::string>> mount(std::string sideKey, std::string bsdDevice) override;
    asio::awaitable<void> cleanup(std::string runKey, bool succeeded) override;
};

}  // namespace ql
