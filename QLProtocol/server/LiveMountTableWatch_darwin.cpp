#include "QLProtocol/server/LiveMountTableWatch.h"

namespace ql {

struct LiveMountTableWatch::State {};

LiveMountTableWatch::LiveMountTableWatch(asio::any_io_executor executor, std::string mountInfo)
    : executor_(std::move(executor)), mountInfo_(std::move(mountInfo)) {}

LiveMountTableWatch::~LiveMountTableWatch() = default;

tl::expected<void, std::string> LiveMountTableWatch::start(std::function<void()>) {
    return tl::unexpected(std::string("watching the mount table is not available in this build"));
}

void LiveMountTableWatch::stop() {}

}  // namespace ql
