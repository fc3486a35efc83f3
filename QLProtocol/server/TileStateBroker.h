#pragma once

#include <asio.hpp>

#include <cstdint>
#include <filesystem>
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
    virtual asio::awaitable<Materialized> materialize(std::string tileID) = 0;
    virtual asio::awaitable<std::string> capture(std::string tileID) = 0;
    // Where the engine writes the state of this job's run.
    virtual std::filesystem::path stateFile(const std::string& tileID) const = 0;
};

// Used when incremental scanning is unavailable: every run scans fully.
class NoOpTileStateBroker final : public TileStateBroker {
public:
    asio::awaitable<Materialized> materialize(std::string) override { co_return Materialized{"blob_empty", {}}; }
    asio::awaitable<std::string> capture(std::string) override { co_return std::string("file_missing"); }
    std::filesystem::path stateFile(const std::string&) const override { return {}; }
};

// Keeps one file per job, "<job id>.fsstate" in the "FSEventsState" folder of the state
// directory.
class LiveTileStateBroker final : public TileStateBroker {
public:
    LiveTileStateBroker(CopyTileStore& store, std::filesystem::path directory, std::uint32_t engineStateVersion);

    asio::awaitable<Materialized> materialize(std::string tileID) override;
    asio::awaitable<std::string> capture(std::string tileID) override;
    std::filesystem::path stateFile(const std::string& tileID) const override;

private:
    CopyTileStore& store_;
    std::filesystem::path directory_;
    std::uint32_t engineStateVersion_;
};

}  // namespace ql
