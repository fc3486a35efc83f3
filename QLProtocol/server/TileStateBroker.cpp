#include "QLProtocol/server/TileStateBroker.h"

#include "QLProtocol/server/CopyTileStore.h"
#include "QLProtocol/server/access/OwnedStateFolder.h"
#include "QLSupport/AtomicFile.h"
#include "QLSupport/UserCredentials.h"
#include "QLSupport/Log.h"

#include <cerrno>
#include <cstring>
#include <system_error>

namespace ql {
namespace {

constexpr std::string_view tag = "TileStateBroker";

std::string fileNamePart(const std::string& id) {
    std::string out;
    for (char c : id) {
        const bool plain = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-';
        out.push_back(plain ? c : '_');
    }
    return out.empty() ? "_" : out;
}

}  // namespace

LiveTileStateBroker::LiveTileStateBroker(CopyTileStore& store, std::filesystem::path directory,
                                         std::uint32_t engineStateVersion)
    : store_(store), directory_(std::move(directory)), engineStateVersion_(engineStateVersion) {}

std::filesystem::path LiveTileStateBroker::stateFile(const std::string& tileID, std::uint32_t engineUid) const {
    const auto name = fileNamePart(tileID) + ".fsstate";
    if (engineUid == 0) return directory_ / name;
    return directory_ / "users" / std::to_string(engineUid) / name;
}

std::optional<std::string> LiveTileStateBroker::notUsable(const std::optional<Tile>& tile) const {
    if (!tile) return "tile_missing";
    if (tile->fs_events_state().empty()) return "blob_empty";
    // Another format than the engine's: no file is written, so the engine scans fully.
    if (tile->fs_events_state_version() != engineStateVersion_) return "version_mismatch";
    return std::nullopt;
}

tl::expected<OwnedStateFolder, std::string> LiveTileStateBroker::ownedFolder(std::uint32_t engineUid) const {
    auto user = UserCredentials::forUser(engineUid);
    if (!user) return tl::unexpected(user.error());
    return OwnedStateFolder::prepare(directory_ / "users", user->uid, user->gid);
}

asio::awaitable<TileStateBroker::Materialized> LiveTileStateBroker::materializeOwned(std::string tileID,
                                                                                    std::uint32_t engineUid) {
    const auto name = fileNamePart(tileID) + ".fsstate";
    auto folder = ownedFolder(engineUid);
    if (folder) folder->remove(name);
    auto tile = co_await store_.get(tileID);
    std::string disposition;
    if (!folder) {
        Log::line(tag, "materialize failed for id=" + tileID + ": " + folder.error());
        disposition = "write_failed";
    } else if (auto unusable = notUsable(tile)) {
        disposition = *unusable;
    } else if (auto written = folder->write(name, tile->fs_events_state()); !written) {
        Log::line(tag, "materialize failed for id=" + tileID + ": " + written.error());
        disposition = "write_failed";
    } else {
        disposition = "usable";
    }
    Log::f(tag, "materialize id={} for uid {} → {}", tileID, engineUid, disposition);
    co_return Materialized{disposition, disposition == "usable" ? folder->file(name) : std::filesystem::path{}};
}

asio::awaitable<std::string> LiveTileStateBroker::store(std::string tileID, tl::expected<std::string, int> bytes) {
    if (!bytes) {
        if (bytes.error() == ENOENT) co_return std::string("file_missing");
        Log::line(tag, "capture read failed for id=" + tileID + ": " + std::strerror(bytes.error()));
        co_return std::string("read_failed");
    }
    if (bytes->empty()) co_return std::string("file_empty");
    auto stored = co_await store_.setFsEventsState(tileID, *bytes, engineStateVersion_);
    if (!stored) co_return std::string("persist_failed");
    co_return std::string(*stored == CopyTileStore::DaemonWrite::skippedNoTile ? "skipped_no_tile" : "persisted");
}

asio::awaitable<std::string> LiveTileStateBroker::captureOwned(std::string tileID, std::uint32_t engineUid) {
    const auto name = fileNamePart(tileID) + ".fsstate";
    auto folder = ownedFolder(engineUid);
    std::string disposition;
    if (!folder) {
        Log::line(tag, "capture read failed for id=" + tileID + ": " + folder.error());
        co_return std::string("read_failed");
    }
    auto bytes = folder->read(name);
    disposition = co_await store(tileID, std::move(bytes));
    folder->remove(name);
    Log::f(tag, "capture id={} for uid {} → {}", tileID, engineUid, disposition);
    co_return disposition;
}

asio::awaitable<TileStateBroker::Materialized> LiveTileStateBroker::materialize(std::string tileID,
                                                                               std::uint32_t engineUid) {
    if (engineUid != 0) co_return co_await materializeOwned(std::move(tileID), engineUid);
    const auto file = stateFile(tileID, 0);
    std::error_code ignored;
    // Whatever an earlier run left is never taken for this run's starting point.
    std::filesystem::remove(file, ignored);
    auto tile = co_await store_.get(tileID);
    std::string disposition;
    if (auto unusable = notUsable(tile)) {
        disposition = *unusable;
    } else {
        std::error_code error;
        std::filesystem::create_directories(directory_, error);
        auto written = error ? tl::expected<void, AtomicWriteError>(tl::unexpected(
                                   AtomicWriteError{"mkdir", error.value(), directory_}))
                             : AtomicFile::write(file, tile->fs_events_state(), 0600);
        if (!written) {
            Log::line(tag, "materialize failed for id=" + tileID + ": " + written.error().message());
            disposition = "write_failed";
        } else {
            disposition = "usable";
        }
    }
    if (tile) {
        Log::f(tag, "materialize id={} → {} (stored version {}, engine version {}, {} bytes)", tileID, disposition,
               tile->fs_events_state_version(), engineStateVersion_, tile->fs_events_state().size());
    } else {
        Log::f(tag, "materialize id={} → {}", tileID, disposition);
    }
    co_return Materialized{disposition, disposition == "usable" ? file : std::filesystem::path{}};
}

asio::awaitable<std::string> LiveTileStateBroker::capture(std::string tileID, std::uint32_t engineUid) {
    if (engineUid != 0) co_return co_await captureOwned(std::move(tileID), engineUid);
    const auto file = stateFile(tileID, 0);
    auto bytes = AtomicFile::read(file);
    const std::string disposition = co_await store(tileID, std::move(bytes));
    std::error_code ignored;
    std::filesystem::remove(file, ignored);
    Log::f(tag, "capture id={} → {}", tileID, disposition);
    co_return disposition;
}

}  // namespace ql
