#pragma once

#include "QLProtocol/proto/tiles.pb.h"
#include "QLProtocol/server/CopyTileStoreEvent.h"
#include "QLProtocol/server/SerialGate.h"
#include "QLProtocol/server/TileStoreError.h"
#include "QLProtocol/server/TileStoreFile.h"
#include "QLSupport/Actor.h"
#include "QLSupport/BlockingPool.h"
#include "QLSupport/Clock.h"
#include "QLSupport/EventStream.h"
#include "QLSupport/Uuid.h"

#include <tl/expected.hpp>

#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ql {

// Who is writing a job: a client through the tile service, or the server's own bookkeeping.
// A client write never changes the fields only the server keeps (run history, file-system-event
// state, deferred paths, destination absence, encryption debt); the stored values carry over.
enum class TileWriteOrigin { client, daemon };

std::string_view caseName(TileWriteOrigin origin);

// The copy server's one persistent record of the user's copy jobs ("tiles"), keyed by id and
// saved whole to "tiles.json" after every change.
//
// An actor. Every mutation is computed on a copy, saved (on the blocking pool), and only then
// adopted and told to subscribers, so a failed save changes nothing and emits nothing, and
// subscribers see changes in the order they were saved. Mutations run one after another;
// `list` and `get` answer from the saved state at once.
class CopyTileStore : public Actor {
public:
    using Tile = ql4::transport::v1::CopyTile;
    using RunRecord = ql4::transport::v1::RunRecord;
    using Events = EventStream<CopyTileStoreEvent>;

    enum class EncryptionDebtWrite { persisted, skippedAnchorMismatch };
    // Outcome of a server-side bookkeeping write.
    enum class DaemonWrite { persisted, skippedNoTile, skippedChanged };
    enum class Side { source, destination };

    // Called after a saved write changed a job's source or destination binding or its copy-rule
    // file, with the job's id (the scheduler re-plans, the preview is invalidated).
    using BindingOrRuleChanged = std::function<asio::awaitable<void>(std::string tileID)>;
    // Canonical text of a network-share URL; nullopt when the URL is malformed.
    using ShareURLCanonicalizer = std::function<std::optional<std::string>(std::string_view)>;

    struct Options {
        // Used by the share-identity migration at load; `CanonicalShareURL::of` when empty.
        ShareURLCanonicalizer canonicalShareURL;
    };

    CopyTileStore(const Executor& executor, std::filesystem::path fileURL, BlockingPool& pool, const Clock& clock,
                  Options options = {});

    const std::filesystem::path& fileURL() const { return fileURL_; }

    // Reads "tiles.json" (with the recovery order of `TileStoreFile`) and runs the migrations.
    asio::awaitable<void> load();

    // Every job by ascending `sort_order` (jobs without one last), ties by id.
    asio::awaitable<std::vector<Tile>> list();
    asio::awaitable<std::optional<Tile>> get(std::string id);

    // Stores a job (added or updated). Binding states are never stored.
    asio::awaitable<tl::expected<Tile, TileStoreError>> upsert(Tile tile, TileWriteOrigin origin);
    // Deletes a job; an unknown id is `noSuchTile`.
    asio::awaitable<tl::expected<void, TileStoreError>> remove(std::string id);
    // Gives the named jobs `sort_order` 0, 1, 2 … in this order (unknown ids are ignored, jobs
    // not named follow in their current order) and emits `updated` for each job that moved.
    asio::awaitable<tl::expected<void, TileStoreError>> reorder(std::vector<std::string> ids);

    // Server bookkeeping. A job that no longer exists (deleted while a run was going) is skipped
    // with a log line, never an error.
    asio::awaitable<tl::expected<DaemonWrite, TileStoreError>> appendRunRecord(std::string tileID, RunRecord record,
                                                                              std::size_t cap);
    asio::awaitable<tl::expected<DaemonWrite, TileStoreError>> setFsEventsState(std::string tileID, std::string blob,
                                                                               std::uint32_t version);
    asio::awaitable<tl::expected<DaemonWrite, TileStoreError>> noteDestinationAbsent(std::string tileID, SystemTime at);
    asio::awaitable<tl::expected<DaemonWrite, TileStoreError>> setDeferredPaths(std::string tileID,
                                                                               std::vector<std::string> paths,
                                                                               SystemTime at);
    // Replaces one side's binding (a heal or a migration), but only while the stored binding is
    // still `expected`: a client edit that landed meanwhile wins (`skippedChanged`).
    asio::awaitable<tl::expected<DaemonWrite, TileStoreError>> replaceBinding(
        std::string tileID, Side side, ql4::transport::v1::VolumeBinding expected,
        ql4::transport::v1::VolumeBinding replacement);
    // Sets (or, with an empty anchor, clears) `destination_encryption_debt_anchor`, but only
    // while the stored anchor still equals `expectedPrior`.
    asio::awaitable<tl::expected<EncryptionDebtWrite, TileStoreError>> writeEncryptionDebt(std::string tileID,
                                                                                          std::string anchor,
                                                                                          std::string expectedPrior);

    // A stream of every saved change from now on; it ends for the store when the consumer is
    // dropped.
    asio::awaitable<Events::Consumer> subscribe();

    asio::awaitable<void> setOnBindingOrRuleChanged(BindingOrRuleChanged callback);

    // Sort order used by `list`.
    static bool listsBefore(const Tile& a, const Tile& b);

private:
    using Tiles = TileStoreFile::Tiles;

    asio::awaitable<void> loadOnStrand();
    asio::awaitable<tl::expected<Tile, TileStoreError>> upsertOnStrand(Tile tile, TileWriteOrigin origin);
    asio::awaitable<tl::expected<void, TileStoreError>> removeOnStrand(std::string id);
    asio::awaitable<tl::expected<void, TileStoreError>> reorderOnStrand(std::vector<std::string> ids);
    asio::awaitable<tl::expected<DaemonWrite, TileStoreError>> daemonWriteOnStrand(
        std::string tileID, std::string operation, std::function<void(Tile&)> change);
    asio::awaitable<tl::expected<DaemonWrite, TileStoreError>> replaceBindingOnStrand(
        std::string tileID, Side side, ql4::transport::v1::VolumeBinding expected,
        ql4::transport::v1::VolumeBinding replacement);
    asio::awaitable<tl::expected<EncryptionDebtWrite, TileStoreError>> encryptionDebtOnStrand(std::string tileID,
                                                                                             std::string anchor,
                                                                                             std::string expectedPrior);

    // Writes the file on the blocking pool.
    asio::awaitable<tl::expected<void, TileStoreFile::SaveError>> save(const Tiles& tiles);
    // Saves `candidate` on the blocking pool; on success adopts it and tells subscribers.
    asio::awaitable<tl::expected<void, TileStoreError>> commit(Tiles candidate, std::vector<CopyTileStoreEvent> events);
    void publish(const std::vector<CopyTileStoreEvent>& events);
    asio::awaitable<void> notifyBindingOrRuleChanged(std::vector<std::string> ids);

    bool migrateSortOrder(Tiles& tiles);
    std::size_t normalizeShareIdentity(Tiles& tiles);

    std::filesystem::path fileURL_;
    BlockingPool& pool_;
    const Clock& clock_;
    Options options_;
    TileStoreFile file_;
    SerialGate gate_;
    Tiles tiles_;
    std::map<Uuid, Events::Producer> subscribers_;
    BindingOrRuleChanged onBindingOrRuleChanged_;
};

}  // namespace ql
