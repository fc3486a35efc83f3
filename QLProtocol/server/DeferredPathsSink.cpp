#include "QLProtocol/server/DeferredPathsSink.h"

#include "QLProtocol/server/CopyTileStore.h"

namespace ql {

asio::awaitable<void> LiveDeferredPathsSink::record(std::string tileID, std::vector<std::string> paths, SystemTime at) {
    // The store logs a missing job or a failed save itself; a run never fails for this.
    (void)co_await store_.setDeferredPaths(std::move(tileID), std::move(paths), at);
}

}  // namespace ql
