#include "QLProtocol/server/CopyTileStore.h"

#include "QLProtocol/server/CanonicalShareURL.h"
#include "QLSupport/Log.h"

#include <google/protobuf/util/message_differencer.h>

#include <algorithm>

namespace ql {
namespace {

constexpr std::string_view tag = "CopyTileStore";

using Tile = CopyTileStore::Tile;
using google::protobuf::util::MessageDifferencer;

bool same(const google::protobuf::Message& a, const google::protobuf::Message& b) {
    return MessageDifferencer::Equals(a, b);
}

// Copies the fields only the server writes from `stored` into `incoming`.
void keepServerOwnedFields(const Tile& stored, Tile& incoming) {
    *incoming.mutable_recent_runs() = stored.recent_runs();
    incoming.set_fs_events_state(stored.fs_events_state());
    incoming.set_fs_events_state_version(stored.fs_events_state_version());
    *incoming.mutable_deferred_paths() = stored.deferred_paths();
    incoming.set_deferred_recorded_at_unix_nanos(stored.deferred_recorded_at_unix_nanos());
    incoming.set_destination_encryption_debt_anchor(stored.destination_encryption_debt_anchor());
    incoming.set_destination_absent_at_unix_nanos(stored.destination_absent_at_unix_nanos());
}

void clearServerOwnedFields(Tile& tile) {
    tile.clear_recent_runs();
    tile.clear_fs_events_state();
    tile.clear_fs_events_state_version();
    tile.clear_deferred_paths();
    tile.clear_deferred_recorded_at_unix_nanos();
    tile.clear_destination_encryption_debt_anchor();
    tile.clear_destination_absent_at_unix_nanos();
}

// The facts that name the source volume (not its display facts).
bool sameSourceIdentity(const ql4::transport::v1::VolumeBinding& a, const ql4::transport::v1::VolumeBinding& b) {
    return a.partition_guid() == b.partition_guid() && a.volume_uuid() == b.volume_uuid() &&
           a.network_url() == b.network_url() && same(a.disk_image(), b.disk_image()) &&
           a.target_kind() == b.target_kind() && a.target_role() == b.target_role();
}

bool bindingOrRuleDiffers(const Tile& a, const Tile& b) {
    return !same(a.source(), b.source()) || !same(a.destination(), b.destination()) ||
           a.copy_rule_filename() != b.copy_rule_filename();
}

std::int64_t nextSortOrder(const std::map<std::string, Tile>& tiles) {
    std::int64_t next = 0;
    for (const auto& [id, tile] : tiles) {
        if (tile.has_sort_order()) next = std::max(next, tile.sort_order() + 1);
    }
    return next;
}

std::string describe(const TileStoreFile::SaveError& error) { return error.message(); }

}  // namespace

std::string_view caseName(TileWriteOrigin origin) { return origin == TileWriteOrigin::client ? "client" : "daemon"; }

CopyTileStore::CopyTileStore(const Executor& executor, std::filesystem::path fileURL, BlockingPool& pool,
                             const Clock& clock, Options options)
    : Actor(executor),
      fileURL_(std::move(fileURL)),
      pool_(pool),
      clock_(clock),
      options_(std::move(options)),
      file_(fileURL_, clock_) {
    if (!options_.canonicalShareURL) options_.canonicalShareURL = [](std::string_view url) { return CanonicalShareURL::of(url); };
}

bool CopyTileStore::listsBefore(const Tile& a, const Tile& b) {
    if (a.has_sort_order() != b.has_sort_order()) return a.has_sort_order();
    if (a.has_sort_order() && a.sort_order() != b.sort_order()) return a.sort_order() < b.sort_order();
    return a.id() < b.id();
}

// ---------------------------------------------------------------------------------------------
// Load and migrations

asio::awaitable<void> CopyTileStore::load() { return serialized(loadOnStrand()); }

asio::awaitable<void> CopyTileStore::loadOnStrand() {
    auto pass = co_await gate_.enter();
    auto loadWork = [this] { return file_.load(); };
    auto loaded = co_await pool_.run(std::move(loadWork));
    Tiles tiles = std::move(loaded.tiles);

    if (migrateSortOrder(tiles)) {
        auto saved = co_await save(tiles);
        if (!saved) {
            Log::line(tag, "sort_order migration persist failed (" + describe(saved.error()) +
                               "); assignment held in memory, retried on next mutation");
        }
    }
    if (std::size_t rewritten = normalizeShareIdentity(tiles); rewritten > 0) {
        Log::f(tag, "share-identity normalize — {} tile(s) rewritten", rewritten);
        auto saved = co_await save(tiles);
        if (!saved) {
            Log::line(tag, "share-identity normalize persist failed (" + describe(saved.error()) +
                               "); retries on next load");
        }
    }
    tiles_ = std::move(tiles);
}

bool CopyTileStore::migrateSortOrder(Tiles& tiles) {
    std::vector<Tile*> lacking;
    for (auto& [id, tile] : tiles) {
        if (!tile.has_sort_order()) lacking.push_back(&tile);
    }
    if (lacking.empty()) return false;
    // Jobs that already have a place keep it; the others follow in the order they were made.
    std::sort(lacking.begin(), lacking.end(), [](const Tile* a, const Tile* b) {
        if (a->created_at_unix_nanos() != b->created_at_unix_nanos()) {
            return a->created_at_unix_nanos() < b->created_at_unix_nanos();
        }
        return a->id() < b->id();
    });
    std::int64_t next = nextSortOrder(tiles);
    for (Tile* tile : lacking) tile->set_sort_order(next++);
    Log::f(tag, "sort_order migration stamped {} tile(s) from the derived order", lacking.size());
    return true;
}

std::size_t CopyTileStore::normalizeShareIdentity(Tiles& tiles) {
    if (!options_.canonicalShareURL) return 0;
    std::size_t rewritten = 0;
    for (auto& [id, tile] : tiles) {
        bool changed = false;
        auto normalize = [&](ql4::transport::v1::VolumeBinding* binding, const char* side) {
            if (binding->network_url().empty()) return;
            auto canonical = options_.canonicalShareURL(binding->network_url());
            if (!canonical || *canonical == binding->network_url()) return;
            binding->set_network_url(*canonical);
            Log::line(tag, "share-identity normalize: tile " + id + " " + side + " url=" + *canonical + " re-derived");
            changed = true;
        };
        if (tile.has_source()) normalize(tile.mutable_source(), "source");
        if (tile.has_destination()) normalize(tile.mutable_destination(), "destination");
        if (changed) ++rewritten;
    }
    return rewritten;
}

// ---------------------------------------------------------------------------------------------
// Reading

asio::awaitable<std::vector<Tile>> CopyTileStore::list() {
    auto body = [](CopyTileStore* self) -> asio::awaitable<std::vector<Tile>> {
        std::vector<Tile> out;
        out.reserve(self->tiles_.size());
        for (const auto& [id, tile] : self->tiles_) out.push_back(tile);
        std::sort(out.begin(), out.end(), listsBefore);
        co_return out;
    };
    return serialized(body(this));
}

asio::awaitable<std::optional<Tile>> CopyTileStore::get(std::string id) {
    auto body = [](CopyTileStore* self, std::string id) -> asio::awaitable<std::optional<Tile>> {
        auto it = self->tiles_.find(id);
        if (it == self->tiles_.end()) co_return std::nullopt;
        co_return it->second;
    };
    return serialized(body(this, std::move(id)));
}

asio::awaitable<CopyTileStore::Events::Consumer> CopyTileStore::subscribe() {
    auto body = [](CopyTileStore* self) -> asio::awaitable<Events::Consumer> {
        auto [producer, consumer] = Events::make();
        self->subscribers_[Uuid::mint()] = producer;
        co_return std::move(consumer);
    };
    return serialized(body(this));
}

asio::awaitable<void> CopyTileStore::setOnBindingOrRuleChanged(BindingOrRuleChanged callback) {
    auto body = [](CopyTileStore* self, BindingOrRuleChanged callback) -> asio::awaitable<void> {
        self->onBindingOrRuleChanged_ = std::move(callback);
        co_return;
    };
    return serialized(body(this, std::move(callback)));
}

// ---------------------------------------------------------------------------------------------
// Writing

asio::awaitable<tl::expected<void, TileStoreFile::SaveError>> CopyTileStore::save(const Tiles& tiles) {
    // The pool works on its own copy, held by a named closure: GCC 12 mishandles a closure
    // that is a temporary of a co_await expression (it can be destroyed twice).
    auto snapshot = std::make_shared<const Tiles>(tiles);
    auto work = [this, snapshot] { return file_.save(*snapshot); };
    co_return co_await pool_.run(std::move(work));
}

asio::awaitable<tl::expected<void, TileStoreError>> CopyTileStore::commit(Tiles candidate,
                                                                          std::vector<CopyTileStoreEvent> events) {
    auto saved = co_await save(candidate);
    if (!saved) co_return tl::unexpected(TileStoreError::persistenceFailed(saved.error().message()));
    tiles_ = std::move(candidate);
    publish(events);
    co_return tl::expected<void, TileStoreError>{};
}

void CopyTileStore::publish(const std::vector<CopyTileStoreEvent>& events) {
    for (auto it = subscribers_.begin(); it != subscribers_.end();) {
        bool open = true;
        for (const auto& event : events) {
            if (!it->second.push(event)) {
                open = false;
                break;
            }
        }
        it = open ? std::next(it) : subscribers_.erase(it);
    }
}

asio::awaitable<void> CopyTileStore::notifyBindingOrRuleChanged(std::vector<std::string> ids) {
    auto callback = onBindingOrRuleChanged_;
    if (!callback) co_return;
    for (auto& id : ids) {
        try {
            co_await callback(id);
        } catch (const std::exception& e) {
            Log::line(tag, "binding/rule change hook failed for id=" + id + ": " + e.what());
        }
    }
}

asio::awaitable<tl::expected<Tile, TileStoreError>> CopyTileStore::upsert(Tile tile, TileWriteOrigin origin) {
    return serialized(upsertOnStrand(std::move(tile), origin));
}

asio::awaitable<tl::expected<Tile, TileStoreError>> CopyTileStore::upsertOnStrand(Tile tile, TileWriteOrigin origin) {
    if (tile.id().empty()) co_return tl::unexpected(TileStoreError::idRequired());
    auto pass = co_await gate_.enter();
    Tiles candidate = tiles_;
    tile.clear_source_binding_state();
    tile.clear_destination_binding_state();

    const std::string id = tile.id();
    auto existing = candidate.find(id);
    const bool adding = existing == candidate.end();
    if (origin == TileWriteOrigin::client) {
        if (adding) {
            clearServerOwnedFields(tile);
        } else {
            const Tile& stored = existing->second;
            keepServerOwnedFields(stored, tile);
            const std::string& srcSub = tile.source().subpath();
            const std::string& dstSub = tile.destination().subpath();
            if (srcSub != stored.source().subpath() || dstSub != stored.destination().subpath()) {
                if (!tile.fs_events_state().empty()) {
                    Log::line("TileService", "tile " + id + " subpath changed (src '" + srcSub + "', dst '" + dstSub +
                             "') — clearing fs_events_state to force a full scan");
                }
                tile.clear_fs_events_state();
            } else if (!sameSourceIdentity(tile.source(), stored.source()) && !tile.fs_events_state().empty()) {
                Log::line(tag, "tile " + id + " source changed — clearing fs_events_state to force a full scan");
                tile.clear_fs_events_state();
            }
        }
    }
    if (!tile.has_sort_order()) {
        if (!adding && existing->second.has_sort_order()) {
            tile.set_sort_order(existing->second.sort_order());
        } else {
            tile.set_sort_order(nextSortOrder(candidate));
        }
    }
    if (!adding && same(existing->second, tile)) {
        Log::f(tag, "upsert id={} origin={} unchanged; nothing saved", id, caseName(origin));
        co_return tile;
    }
    const bool hookDue = adding || bindingOrRuleDiffers(existing->second, tile);
    candidate[id] = tile;
    std::vector<CopyTileStoreEvent> events;
    events.push_back(adding ? CopyTileStoreEvent::added(tile) : CopyTileStoreEvent::updated(tile));
    auto committed = co_await commit(std::move(candidate), std::move(events));
    if (!committed) {
        Log::f(tag, "upsert id={} origin={} persist failed: {}", id, caseName(origin), committed.error().message);
        co_return tl::unexpected(committed.error());
    }
    Log::f(tag, "upsert id={} origin={} {}", id, caseName(origin), adding ? "added" : "updated");
    pass.release();
    if (hookDue) co_await notifyBindingOrRuleChanged(std::vector<std::string>(1, id));
    co_return tile;
}

asio::awaitable<tl::expected<void, TileStoreError>> CopyTileStore::remove(std::string id) {
    return serialized(removeOnStrand(std::move(id)));
}

asio::awaitable<tl::expected<void, TileStoreError>> CopyTileStore::removeOnStrand(std::string id) {
    auto pass = co_await gate_.enter();
    if (tiles_.count(id) == 0) {
        Log::line(tag, "delete id=" + id + ": no such job");
        co_return tl::unexpected(TileStoreError::noSuchTile());
    }
    Tiles candidate = tiles_;
    const auto owner = candidate[id].owner_uid();
    candidate.erase(id);
    std::vector<CopyTileStoreEvent> events;
    events.push_back(CopyTileStoreEvent::removed(id, owner));
    auto committed = co_await commit(std::move(candidate), std::move(events));
    if (!committed) {
        Log::line(tag, "delete id=" + id + " persist failed: " + committed.error().message);
        co_return committed;
    }
    Log::line(tag, "delete id=" + id + " removed");
    co_return committed;
}

asio::awaitable<tl::expected<void, TileStoreError>> CopyTileStore::reorder(std::vector<std::string> ids) {
    return serialized(reorderOnStrand(std::move(ids)));
}

asio::awaitable<tl::expected<void, TileStoreError>> CopyTileStore::reorderOnStrand(std::vector<std::string> ids) {
    auto pass = co_await gate_.enter();
    Tiles candidate = tiles_;
    std::vector<std::string> order;
    std::size_t ignored = 0;
    for (const auto& id : ids) {
        if (candidate.count(id) == 0 || std::find(order.begin(), order.end(), id) != order.end()) {
            ++ignored;
            continue;
        }
        order.push_back(id);
    }
    // Jobs the request did not name keep their relative order after the named ones.
    std::vector<const Tile*> rest;
    for (const auto& [id, tile] : candidate) {
        if (std::find(order.begin(), order.end(), id) == order.end()) rest.push_back(&tile);
    }
    std::sort(rest.begin(), rest.end(), [](const Tile* a, const Tile* b) { return listsBefore(*a, *b); });
    for (const Tile* tile : rest) order.push_back(tile->id());

    std::vector<CopyTileStoreEvent> events;
    for (std::size_t i = 0; i < order.size(); ++i) {
        Tile& tile = candidate[order[i]];
        const auto position = static_cast<std::int64_t>(i);
        if (tile.has_sort_order() && tile.sort_order() == position) continue;
        tile.set_sort_order(position);
        events.push_back(CopyTileStoreEvent::updated(tile));
    }
    if (ignored > 0) Log::f(tag, "reorder ignored {} unknown or repeated id(s)", ignored);
    if (events.empty()) {
        Log::line(tag, "reorder changed nothing");
        co_return tl::expected<void, TileStoreError>{};
    }
    auto committed = co_await commit(std::move(candidate), std::move(events));
    if (!committed) {
        Log::line(tag, "reorder persist failed: " + committed.error().message);
        co_return committed;
    }
    Log::f(tag, "reorder stored the order of {} tile(s)", order.size());
    co_return committed;
}

asio::awaitable<tl::expected<CopyTileStore::DaemonWrite, TileStoreError>> CopyTileStore::daemonWriteOnStrand(
    std::string tileID, std::string operation, std::function<void(Tile&)> change) {
    auto pass = co_await gate_.enter();
    if (tiles_.count(tileID) == 0) {
        Log::line(tag, operation + " skipped — no tile for id=" + tileID + " (deleted mid-run?)");
        co_return DaemonWrite::skippedNoTile;
    }
    Tiles candidate = tiles_;
    Tile& tile = candidate[tileID];
    change(tile);
    std::vector<CopyTileStoreEvent> events;
    events.push_back(CopyTileStoreEvent::updated(tile));
    auto committed = co_await commit(std::move(candidate), std::move(events));
    if (!committed) {
        Log::line(tag, operation + " persist failed for id=" + tileID + ": " + committed.error().message);
        co_return tl::unexpected(committed.error());
    }
    co_return DaemonWrite::persisted;
}

asio::awaitable<tl::expected<CopyTileStore::DaemonWrite, TileStoreError>> CopyTileStore::appendRunRecord(
    std::string tileID, RunRecord record, std::size_t cap) {
    const std::size_t keep = std::max<std::size_t>(cap, 1);
    auto change = [record = std::move(record), keep](Tile& tile) {
        *tile.add_recent_runs() = record;
        auto* runs = tile.mutable_recent_runs();
        const int excess = runs->size() - static_cast<int>(keep);
        if (excess > 0) runs->DeleteSubrange(0, excess);
    };
    return serialized(daemonWriteOnStrand(std::move(tileID), "appendRunRecord", std::move(change)));
}

asio::awaitable<tl::expected<CopyTileStore::DaemonWrite, TileStoreError>> CopyTileStore::setFsEventsState(
    std::string tileID, std::string blob, std::uint32_t version) {
    auto body = [](CopyTileStore* self, std::string tileID, std::string blob,
                   std::uint32_t version) -> asio::awaitable<tl::expected<DaemonWrite, TileStoreError>> {
        std::uint32_t oldVersion = 0;
        std::size_t oldBytes = 0;
        if (auto it = self->tiles_.find(tileID); it != self->tiles_.end()) {
            oldVersion = it->second.fs_events_state_version();
            oldBytes = it->second.fs_events_state().size();
        }
        const std::size_t newBytes = blob.size();
        auto change = [blob = std::move(blob), version](Tile& tile) {
            tile.set_fs_events_state(blob);
            tile.set_fs_events_state_version(version);
        };
        auto outcome = co_await self->daemonWriteOnStrand(tileID, "setFsEventsState", std::move(change));
        const char* word = !outcome                                         ? "persist_failed"
                           : *outcome == DaemonWrite::skippedNoTile ? "skipped_no_tile"
                                                                            : "persisted";
        Log::f(tag, "fs_events_state {} for id={}: version {} → {}, bytes {} → {}", word, tileID, oldVersion, version,
               oldBytes, newBytes);
        co_return outcome;
    };
    return serialized(body(this, std::move(tileID), std::move(blob), version));
}

asio::awaitable<tl::expected<CopyTileStore::DaemonWrite, TileStoreError>> CopyTileStore::noteDestinationAbsent(
    std::string tileID, SystemTime at) {
    const auto nanos = toUnixNanos(at);
    return serialized(daemonWriteOnStrand(std::move(tileID), "noteDestinationAbsent",
                                          [nanos](Tile& tile) { tile.set_destination_absent_at_unix_nanos(nanos); }));
}

asio::awaitable<tl::expected<CopyTileStore::DaemonWrite, TileStoreError>> CopyTileStore::setDeferredPaths(
    std::string tileID, std::vector<std::string> paths, SystemTime at) {
    const auto nanos = toUnixNanos(at);
    auto change = [paths = std::move(paths), nanos](Tile& tile) {
        tile.clear_deferred_paths();
        for (const auto& p : paths) tile.add_deferred_paths(p);
        tile.set_deferred_recorded_at_unix_nanos(nanos);
    };
    return serialized(daemonWriteOnStrand(std::move(tileID), "setDeferredPaths", std::move(change)));
}

asio::awaitable<tl::expected<CopyTileStore::DaemonWrite, TileStoreError>> CopyTileStore::replaceBinding(
    std::string tileID, Side side, ql4::transport::v1::VolumeBinding expected,
    ql4::transport::v1::VolumeBinding replacement) {
    return serialized(replaceBindingOnStrand(std::move(tileID), side, std::move(expected), std::move(replacement)));
}

asio::awaitable<tl::expected<CopyTileStore::DaemonWrite, TileStoreError>> CopyTileStore::replaceBindingOnStrand(
    std::string tileID, Side side, ql4::transport::v1::VolumeBinding expected,
    ql4::transport::v1::VolumeBinding replacement) {
    auto pass = co_await gate_.enter();
    auto it = tiles_.find(tileID);
    if (it == tiles_.end()) {
        Log::line(tag, "replaceBinding skipped — no tile for id=" + tileID + " (deleted meanwhile?)");
        co_return DaemonWrite::skippedNoTile;
    }
    const auto& current = side == Side::source ? it->second.source() : it->second.destination();
    if (!same(current, expected)) {
        Log::line(tag, "replaceBinding skipped for id=" + tileID + " — the binding changed meanwhile");
        co_return DaemonWrite::skippedChanged;
    }
    if (same(current, replacement)) co_return DaemonWrite::persisted;
    Tiles candidate = tiles_;
    Tile& tile = candidate[tileID];
    *(side == Side::source ? tile.mutable_source() : tile.mutable_destination()) = replacement;
    std::vector<CopyTileStoreEvent> events;
    events.push_back(CopyTileStoreEvent::updated(tile));
    auto committed = co_await commit(std::move(candidate), std::move(events));
    if (!committed) {
        Log::line(tag, "replaceBinding persist failed for id=" + tileID + ": " + committed.error().message);
        co_return tl::unexpected(committed.error());
    }
    pass.release();
    co_await notifyBindingOrRuleChanged(std::vector<std::string>(1, tileID));
    co_return DaemonWrite::persisted;
}

asio::awaitable<tl::expected<CopyTileStore::EncryptionDebtWrite, TileStoreError>> CopyTileStore::writeEncryptionDebt(
    std::string tileID, std::string anchor, std::string expectedPrior) {
    return serialized(encryptionDebtOnStrand(std::move(tileID), std::move(anchor), std::move(expectedPrior)));
}

asio::awaitable<tl::expected<CopyTileStore::EncryptionDebtWrite, TileStoreError>> CopyTileStore::encryptionDebtOnStrand(
    std::string tileID, std::string anchor, std::string expectedPrior) {
    auto pass = co_await gate_.enter();
    auto it = tiles_.find(tileID);
    if (it == tiles_.end()) {
        Log::line(tag, "encryption-debt write skipped — no tile for id=" + tileID + " (deleted mid-run?)");
        co_return EncryptionDebtWrite::skippedAnchorMismatch;
    }
    if (it->second.destination_encryption_debt_anchor() != expectedPrior) {
        Log::line(tag, "encryption-debt write skipped for id=" + tileID + " — the stored anchor changed meanwhile");
        co_return EncryptionDebtWrite::skippedAnchorMismatch;
    }
    if (it->second.destination_encryption_debt_anchor() == anchor) co_return EncryptionDebtWrite::persisted;
    Tiles candidate = tiles_;
    Tile& tile = candidate[tileID];
    tile.set_destination_encryption_debt_anchor(anchor);
    std::vector<CopyTileStoreEvent> events;
    events.push_back(CopyTileStoreEvent::updated(tile));
    auto committed = co_await commit(std::move(candidate), std::move(events));
    if (!committed) {
        Log::line(tag, "encryption-debt write persist failed for id=" + tileID + ": " + committed.error().message);
        co_return tl::unexpected(committed.error());
    }
    Log::line(tag, std::string("encryption debt ") + (anchor.empty() ? "cleared" : "recorded") + " for id=" + tileID);
    co_return EncryptionDebtWrite::persisted;
}

}  // namespace ql
