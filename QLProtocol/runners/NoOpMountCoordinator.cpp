#include "QLProtocol/runners/NoOpMountCoordinator.h"

#include "QLSupport/Log.h"

namespace ql {

asio::awaitable<tl::expected<std::string, std::string>> NoOpMountCoordinator::mount(std::string sideKey,
                                                                                     std::string bsdDevice) {
    Log::f("MountCoordinator", "{} vol={} is not mounted — this build can't mount volumes", sideKey, bsdDevice);
    co_return tl::unexpected(std::string("this version of Quillo can't mount volumes"));
}

asio::awaitable<void> NoOpMountCoordinator::cleanup(std::string runKey, bool) {
    Log::f("MountCoordinator", "cleanup {}: nothing was mounted by this run", runKey);
    co_return;
}

}  // namespace ql
