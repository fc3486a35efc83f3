#pragma once

#include "QLProtocol/proto/tiles.pb.h"
#include "QLProtocol/server/access/OwnedStateFolder.h"

#include <asio.hpp>
#include <tl/expected.hpp>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace ql {

class CopyTileStore;

// Moves a job's file-system-event state between the job store and the file the copy engine
// reads and writes, so the engine can scan incrementally.
//
// materialize (before a run): "usable" (the stored state is in the file), "blob_empty" (no
// stored state: a full scan), "tile_missing", "version_mismatch" (the stored state is of
// another format than the engine's; no file is written, forcing a full scan), "write_failed".
// capture (after a run): "file_missing", "file_empty", "read_failed", or the store's outcome
// ("persisted", "skipped_no_tile", "persist_failed").
class TileStateBroker {
public:
    struct Materialized {
        std::string disposition;
        // The file the engine should read; empty unless the disposition is "usable".
        std::filesystem::path file;
    };

    virtual ~TileStateBroker() = default;
    // `engineUid` is the user the engine runs as: root's engine keeps its state in the broker's
    // folder, another user's in a folder of that user's own ("users/<uid>", see
    // `OwnedStateFolder`), because the engine rewrites the file in place of the old one.
    virtual asio::awaitable<Materialized> materialize(std::string tileID, std::uint32_t engineUid) = 0;
    virtual asio::awaitable<std::string> capture(std::string tileID, std::uint32_t engineUid) = 0;
    // Where the engine writes the state of this job's run.
    virtual std::filesystem::path stateFile(const std::string& tileID, std::uint32_t engineUid) const = 0;
};

// Used when incremental scanning is unavailable: every run scans fully.
class NoOpTileStateBroker final : public TileStateBroker {
public:
    asio::awaitable<Materialized> materialize(std::string, std::uint32_t) override {
        co_return Materialized{"blob_empty", {}};
    }
    asio::awaitable<std::string> capture(std::string, std::uint32_t) override { co_return std::string("file_missing"); }
    std::filesystem::path stateFile(const std::string&, std::uint32_t) const override { return {}; }
};

// Keeps one file per job, "<job id>.fsstate" in the "FSEventsState" folder of the state
// directory.
class LiveTileStateBroker final : public TileStateBroker {
public:
    LiveTileStateBroker(CopyTileStore& store, std::filesystem::path directory, std::uint32_t engineStateVersion);

    asio::awaitable<Materialized> materialize(std::string tileID, std::uint32_t engineUid) override;
    asio::awaitable<std::string> capture(std::string tileID, std::uint32_t engineUid) override;
    std::filesystem::path stateFile(const std::string& tileID, std::uint32_t engineUid) const override;

private:
    using Tile = ql4::transport::v1::CopyTile;
    // Why the job's stored state can't be handed to the engine ("tile_missing", "blob_empty",
    // "version_mismatch"), or nothing when it can.
    std::optional<std::string> notUsable(const std::optional<Tile>& tile) const;
    tl::expected<OwnedStateFolder, std::string> ownedFolder(std::uint32_t engineUid) const;
    asio::awaitable<Materialized> materializeOwned(std::string tileID, std::uint32_t engineUid);
    asio::awaitable<std::string> captureOwned(std::string tileID, std::uint32_t engineUid);
    // Stores what a run left (or says why nothing was): the capture disposition.
    asio::awaitable<std::string> store(std::string tileID, tl::expected<std::string, int> bytes);

    CopyTileStore& store_;
    std::filesystem::path directory_;
    std::uint32_t engineStateVersion_;
};

}  // namespace ql
