#pragma once

#include "QLSupport/Clock.h"

#include <asio.hpp>

#include <string>
#include <vector>

namespace ql {

class CopyTileStore;

// Receives the files a run could not read yet (deferred to a catch-up run), so that the job
// remembers them: the live sink stores them in the job record.
class DeferredPathsSink {
public:
    virtual ~DeferredPathsSink() = default;
    virtual asio::awaitable<void> record(std::string tileID, std::vector<std::string> paths, SystemTime at) = 0;
};

// Keeps nothing.
class NoOpDeferredPathsSink final : public DeferredPathsSink {
public:
    asio::awaitable<void> record(std::string, std::vector<std::string>, SystemTime) override { co_return; }
};

// Stores the paths in the job through `CopyTileStore::setDeferredPaths`.
class LiveDeferredPathsSink final : public DeferredPathsSink {
public:
    explicit LiveDeferredPathsSink(CopyTileStore& store) : store_(store) {}
    asio::awaitable<void> record(std::string tileID, std::vector<std::string> paths, SystemTime at) override;

private:
    CopyTileStore& store_;
};

}  // namespace ql
