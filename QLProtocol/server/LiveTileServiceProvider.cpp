#include "QLProtocol/server/LiveTileServiceProvider.h"

#include "QLProtocol/server/CanonicalShareURL.h"
#include "QLProtocol/server/TileBinding.h"
#include "QLSupport/Log.h"

#include <google/protobuf/util/message_differencer.h>

#include <algorithm>

namespace ql {
namespace {

constexpr std::string_view tag = "LiveTileServiceProvider";
constexpr std::string_view serviceTag = "TileService";

using Binding = ql4::transport::v1::VolumeBinding;
using Side = LiveTileServiceProvider::Side;

bool same(const google::protobuf::Message& a, const google::protobuf::Message& b) {
    return google::protobuf::util::MessageDifferencer::Equals(a, b);
}

const Binding& sideOf(const ql4::transport::v1::CopyTile& tile, Side side) {
    return side == Side::source ? tile.source() : tile.destination();
}

Binding* mutableSide(ql4::transport::v1::CopyTile& tile, Side side) {
    return side == Side::source ? tile.mutable_source() : tile.mutable_destination();
}

CopyTileStore::Side storeSide(Side side) {
    return side == Side::source ? CopyTileStore::Side::source : CopyTileStore::Side::destination;
}

std::string sideName(Side side) { return std::string(TileBindingEnricher::sideName(side)); }

std::string uuidText(const std::string& bytes) {
    if (bytes.empty()) return "<empty>";
    auto uuid = UUIDCodec::decode(bytes);
    return uuid ? uuid->text() : "<malformed>";
}

std::string flag(bool value) { return value ? "true" : "false"; }

// The stored binding with the folder the client asked for.
Binding withSubpath(Binding stored, const Binding& incoming) {
    stored.set_subpath(incoming.subpath());
    return stored;
}

constexpr Side bothSides[] = {Side::source, Side::destination};

asio::awaitable<void> healIfAlive(std::weak_ptr<bool> alive, LiveTileServiceProvider* provider, VolumeEvent event) {
    if (alive.expired()) co_return;
    co_await provider->heal(std::move(event));
}

}  // namespace

LiveTileServiceProvider::LiveTileServiceProvider(const Executor& executor, CopyTileStore& store,
                                                 VolumeResolver& resolver, Options options)
    : Actor(executor), store_(store), resolver_(resolver), enricher_(resolver), options_(std::move(options)) {
    if (!options_.clock) options_.clock = std::make_shared<LiveClock>();
    if (!options_.admission) options_.admission = std::make_shared<TileAdmission>(TileAdmission::Collaborators{});
}

LiveTileServiceProvider::~LiveTileServiceProvider() {
    if (volumeEvents_) volumeEvents_->stop();
    alive_.reset();
    for (auto& [id, watcher] : watchSubscribers_) watcher.producer.finish();
}

asio::awaitable<void> LiveTileServiceProvider::stop() {
    if (volumeEvents_) volumeEvents_->stop();
    return serialized(stopOnStrand());
}

asio::awaitable<void> LiveTileServiceProvider::stopOnStrand() {
    for (auto& [id, watcher] : watchSubscribers_) watcher.producer.finish();
    watchSubscribers_.clear();
    co_return;
}

// ---------------------------------------------------------------------------------------------
// Start, the watch pump, heals and migrations

asio::awaitable<void> LiveTileServiceProvider::start(std::shared_ptr<VolumeEventSource> volumeEvents) {
    return serialized(startOnStrand(std::move(volumeEvents)));
}

asio::awaitable<void> LiveTileServiceProvider::startOnStrand(std::shared_ptr<VolumeEventSource> volumeEvents) {
    if (!pumping_) {
        pumping_ = true;
        auto events = co_await store_.subscribe();
        spawnDetached(pump(std::move(events)), std::string(tag));
    }
    co_await migrateOnStrand();
    // A named local: g++ 12 mishandles temporaries inside a co_await expression.
    VolumeEvent firstPass{VolumeEvent::Kind::mounted, {}, {}, {}};
    co_await healOnStrand(std::move(firstPass));
    if (volumeEvents) {
        volumeEvents_ = volumeEvents;
        auto started = volumeEvents->start([this, alive = std::weak_ptr<bool>(alive_)](VolumeEvent event) {
            if (alive.expired() || (event.kind != VolumeEvent::Kind::attached && event.kind != VolumeEvent::Kind::mounted)) {
                return;
            }
            spawnDetached(healIfAlive(alive, this, std::move(event)), std::string(tag));
        });
        if (!started) Log::line(tag, "volume events unavailable (" + started.error() + "); bindings heal on edit only");
    }
}

asio::awaitable<void> LiveTileServiceProvider::pump(CopyTileStore::Events::Consumer events) {
    std::weak_ptr<bool> alive = alive_;
    for (;;) {
        auto event = co_await events.next();
        if (alive.expired() || !event) co_return;
        wire::TileEvent out;
        std::uint32_t owner = 0;
        if (auto* added = std::get_if<CopyTileStoreEvent::Added>(&event->change)) {
            auto tile = co_await withBindingStates(added->tile);
            if (alive.expired()) co_return;
            owner = tile.owner_uid();
            *out.mutable_added() = std::move(tile);
        } else if (auto* updated = std::get_if<CopyTileStoreEvent::Updated>(&event->change)) {
            auto tile = co_await withBindingStates(updated->tile);
            if (alive.expired()) co_return;
            owner = tile.owner_uid();
            *out.mutable_updated() = std::move(tile);
        } else {
            const auto& removed = std::get<CopyTileStoreEvent::Removed>(event->change);
            bindingStates_.erase(removed.id);
            owner = removed.ownerUid;
            out.set_removed_id(removed.id);
        }
        const auto& access = options_.admission->access();
        for (auto it = watchSubscribers_.begin(); it != watchSubscribers_.end();) {
            if (!access.mayUse(it->second.caller, owner)) {
                ++it;
                continue;
            }
            it = it->second.producer.push(out) ? std::next(it) : watchSubscribers_.erase(it);
        }
    }
}

asio::awaitable<void> LiveTileServiceProvider::heal(VolumeEvent event) { return serialized(healOnStrand(std::move(event))); }

asio::awaitable<void> LiveTileServiceProvider::healOnStrand(VolumeEvent event) {
    const bool attach = event.kind == VolumeEvent::Kind::attached;
    const std::string word = attach ? "attach-heal" : "mount-heal";
    auto tiles = co_await store_.list();
    for (const auto& tile : tiles) {
        for (Side side : bothSides) {
            const Binding binding = sideOf(tile, side);
            if (TileBinding::isEmpty(binding) || TileBindingEnricher::isEnriched(binding)) continue;
            // A drive being attached concerns local bindings; a mount concerns every kind.
            if (attach && (TileBinding::isNetwork(binding) || TileBinding::isDiskImage(binding))) continue;
            const std::string label = TileBinding::label(binding);
            auto outcome = co_await enricher_.enrich(tile.id(), side, binding);
            recordState(tile.id(), side, outcome.resolution);
            if (!outcome.enriched()) {
                // Quiet while the volume is still away; a volume that is there but could not
                // be read is worth a line.
                if (outcome.miss == TileBindingEnricher::Miss::failed) {
                    Log::line(tag, word + ": tile " + tile.id() + " " + sideName(side) + " '" + label + "' " +
                                       (attach ? "appeared" : "mounted") +
                                       " but enrichment still failed — leaving unenriched");
                }
                continue;
            }
            auto written = co_await store_.replaceBinding(tile.id(), storeSide(side), binding, outcome.binding);
            if (!written) {
                Log::line(tag, word + ": store.upsert failed for tile " + tile.id() + ": " + written.error().message);
            } else if (*written == CopyTileStore::DaemonWrite::persisted) {
                Log::line(tag, word + ": tile " + tile.id() + " " + sideName(side) + " '" + label + "' → enriched" +
                                   (outcome.binding.partition_guid().empty() ? "" : " (partition_guid captured)"));
            }
        }
    }
}

asio::awaitable<void> LiveTileServiceProvider::runMigrations() { return serialized(migrateOnStrand()); }

asio::awaitable<void> LiveTileServiceProvider::migrateOnStrand() {
    int rewrote = 0, examined = 0, failed = 0;
    auto tiles = co_await store_.list();
    for (const auto& tile : tiles) {
        for (Side side : bothSides) {
            const Binding binding = sideOf(tile, side);
            const std::string prefix = "migration: tile " + tile.id() + " " + sideName(side) + " ";
            Binding rewritten = binding;

            // Data anchor: local bindings resolved to the volume a job really means.
            if (!TileBinding::isNetwork(binding) && !TileBinding::isDiskImage(binding) && TileBinding::key(binding)) {
                ++examined;
                auto resolution = co_await enricher_.resolve(binding);
                recordState(tile.id(), side, resolution);
                const CurrentVolumeState* state = resolution ? resolution->state() : nullptr;
                if (!state) {
                    if (binding.volume_uuid().empty()) {
                        Log::line(tag, prefix + "binding has no resolvable pick (volume_uuid='" +
                                           uuidText(binding.volume_uuid()) + "')");
                    }
                } else if (state->containerState) {
                    const auto& volumes = state->containerState->allVolumes;
                    auto data = std::find_if(volumes.begin(), volumes.end(),
                                             [](const auto& v) { return v.role == APFSVolumeRole::data(); });
                    const bool sole = volumes.size() == 1;
                    if (data == volumes.end() && sole) data = volumes.begin();
                    auto key = TileBinding::key(binding);
                    if (data != volumes.end() && key->kind() != VolumeKey::Kind::wholeDiskAPFSContainer) {
                        const std::string dataUUID = UUIDCodec::encode(data->volumeUUID);
                        if (binding.volume_uuid().empty() && sole) {
                            Log::line(tag, prefix + "APFS volume-uuid BACKFILL — <empty> → " + data->volumeUUID.text() +
                                               " (sole-member container)");
                            rewritten.set_volume_uuid(dataUUID);
                        } else if (binding.volume_uuid() != dataUUID) {
                            Log::line(tag, prefix + "data-anchor rewrite — prior=" + uuidText(binding.volume_uuid()) +
                                               " → " + data->volumeUUID.text() + " (picked volume name='" + data->name +
                                               "')");
                            rewritten.set_volume_uuid(dataUUID);
                        }
                        const std::string shown = TileBindingEnricher::normalizedDataName(binding.display_name());
                        if (shown != binding.display_name()) {
                            Log::line(tag, prefix + "display normalize — '" + binding.display_name() + "' → '" + shown + "'");
                            rewritten.set_display_name(shown);
                        }
                    }
                } else if (state->standaloneVolume && state->standaloneVolume->volumeUUID &&
                           binding.volume_uuid().empty()) {
                    Log::line(tag, prefix + "non-APFS volume-uuid BACKFILL — <empty> → " +
                                       state->standaloneVolume->volumeUUID->text());
                    rewritten.set_volume_uuid(UUIDCodec::encode(*state->standaloneVolume->volumeUUID));
                }
            }

            // Host names of shares and of images kept on shares follow their URL.
            std::string url = binding.network_url();
            if (binding.has_disk_image()) url = binding.disk_image().host_share_url();
            bool restamped = false;
            if (!url.empty()) {
                const std::string host = CanonicalShareURL::host(url);
                if (!host.empty() && host != binding.host_display_name()) {
                    Log::line(tag, "host-name restamp: tile " + tile.id() + " " + sideName(side) + " '" +
                                       binding.host_display_name() + "' → '" + host + "'");
                    rewritten.set_host_display_name(host);
                    restamped = true;
                }
            }

            if (same(rewritten, binding)) continue;
            auto written = co_await store_.replaceBinding(tile.id(), storeSide(side), binding, rewritten);
            if (!written) {
                ++failed;
                Log::line(tag, std::string(restamped ? "host-name restamp" : "migration") +
                                   ": store.upsert failed for tile " + tile.id() + ": " + written.error().message);
            } else if (*written == CopyTileStore::DaemonWrite::persisted) {
                ++rewrote;
            }
        }
    }
    Log::f(tag, "data-anchor migration complete: rewrote={} examined={} failed={}", rewrote, examined, failed);
}

// ---------------------------------------------------------------------------------------------
// Binding states

void LiveTileServiceProvider::recordState(const std::string& tileID, Side side,
                                          const std::optional<Resolution>& resolution) {
    if (!resolution) {
        auto it = bindingStates_.find(tileID);
        if (it != bindingStates_.end()) it->second.erase(side);
        return;
    }
    bindingStates_[tileID][side] = TileBinding::state(*resolution);
}

void LiveTileServiceProvider::attachStates(Tile& tile) const {
    tile.clear_source_binding_state();
    tile.clear_destination_binding_state();
    auto it = bindingStates_.find(tile.id());
    if (it == bindingStates_.end()) return;
    if (auto s = it->second.find(Side::source); s != it->second.end()) *tile.mutable_source_binding_state() = s->second;
    if (auto d = it->second.find(Side::destination); d != it->second.end()) {
        *tile.mutable_destination_binding_state() = d->second;
    }
}

asio::awaitable<LiveTileServiceProvider::Tile> LiveTileServiceProvider::withBindingStates(Tile tile) {
    for (Side side : bothSides) {
        auto resolution = co_await enricher_.resolve(sideOf(tile, side));
        recordState(tile.id(), side, resolution);
    }
    attachStates(tile);
    co_return tile;
}

asio::awaitable<void> LiveTileServiceProvider::erasePreviews(std::string tileID) {
    if (!options_.previews) co_return;
    try {
        co_await options_.previews->erasePreviews(tileID);
    } catch (const std::exception& e) {
        Log::line(serviceTag, "erasing the previews of tile " + tileID + " failed: " + e.what());
    }
}

// ---------------------------------------------------------------------------------------------
// The service's methods

UnaryResult<wire::ListTilesResponse> LiveTileServiceProvider::listTiles(CallContext caller, wire::ListTilesRequest) {
    return serialized(listOnStrand(caller));
}

asio::awaitable<tl::expected<wire::ListTilesResponse, HandlerError>> LiveTileServiceProvider::listOnStrand(
    CallContext caller) {
    auto tiles = co_await store_.list();
    wire::ListTilesResponse response;
    for (auto& tile : tiles) {
        if (!options_.admission->access().mayUse(caller, tile)) continue;
        *response.add_tiles() = co_await withBindingStates(std::move(tile));
    }
    co_return response;
}

asio::awaitable<std::optional<LiveTileServiceProvider::Tile>> LiveTileServiceProvider::visibleTile(
    const CallContext& caller, std::string id) {
    auto stored = co_await store_.get(id);
    if (stored && !options_.admission->access().mayUse(caller, *stored)) {
        Log::f(serviceTag, "tile {} belongs to uid {}, not to the caller ({}) — answered as missing", id,
               stored->owner_uid(), caller.describe());
        stored.reset();
    }
    co_return stored;
}

asio::awaitable<TileAdmission::EndpointPaths> LiveTileServiceProvider::endpointPaths(Tile tile) {
    TileAdmission::EndpointPaths paths;
    for (Side side : bothSides) {
        const auto& binding = sideOf(tile, side);
        auto resolution = co_await enricher_.resolve(binding);
        const auto* state = resolution ? resolution->state() : nullptr;
        auto mount = state ? TileBinding::mountPointOf(*state) : std::nullopt;
        if (!mount) continue;
        auto path = TileBinding::folderOn(*mount, binding.subpath());
        (side == Side::source ? paths.source : paths.destination) = std::move(path);
    }
    co_return paths;
}

UnaryResult<wire::CreateTileResponse> LiveTileServiceProvider::createTile(CallContext caller,
                                                                         wire::CreateTileRequest request) {
    const bool asAdministrator = request.as_administrator();
    return serialized(createOnStrand(caller, std::move(*request.mutable_tile()), asAdministrator));
}

asio::awaitable<tl::expected<wire::CreateTileResponse, HandlerError>> LiveTileServiceProvider::createOnStrand(
    CallContext caller, Tile tile, bool asAdministrator) {
    if (tile.id().empty()) tile.set_id(Uuid::mint().text());
    const std::string id = tile.id();
    Log::line(serviceTag, "createTile entering id=" + id);
    if (co_await store_.get(id)) {
        Log::line(serviceTag, "createTile id=" + id + " refused: a job with this id exists");
        co_return tl::unexpected(TileServiceError::duplicateID(id).handlerError());
    }
    if (tile.created_at_unix_nanos() == 0) tile.set_created_at_unix_nanos(toUnixNanos(options_.clock->now()));
    tile.clear_source_binding_state();
    tile.clear_destination_binding_state();
    for (Side side : bothSides) {
        auto outcome = co_await enricher_.enrich(id, side, sideOf(tile, side));
        *mutableSide(tile, side) = outcome.binding;
        recordState(id, side, outcome.resolution);
        Log::line(serviceTag, "createTile id=" + id + " " + sideName(side) + " enriched (partition_guid set=" +
                                  flag(!outcome.binding.partition_guid().empty()) +
                                  ", volume_uuid set=" + flag(!outcome.binding.volume_uuid().empty()) +
                                  ", complete=" + flag(outcome.enriched()) + ")");
    }
    TileAdmission::EndpointPaths paths;
    if (!options_.admission->access().administers(caller)) paths = co_await endpointPaths(tile);
    auto admitted = co_await options_.admission->admitNew(caller, tile, asAdministrator, std::move(paths));
    if (!admitted) {
        Log::line(serviceTag, "createTile id=" + id + " refused: " + admitted.error());
        bindingStates_.erase(id);
        co_return tl::unexpected(HandlerError::failed(admitted.error()));
    }
    if (co_await store_.get(id)) {
        Log::line(serviceTag, "createTile id=" + id + " refused: a job with this id exists");
        co_return tl::unexpected(TileServiceError::duplicateID(id).handlerError());
    }
    auto stored = co_await store_.upsert(tile, TileWriteOrigin::client);
    if (!stored) {
        Log::line(serviceTag, "createTile id=" + id + " store.upsert FAILED: " + stored.error().message);
        bindingStates_.erase(id);
        co_return tl::unexpected(TileServiceError::persistenceFailed(stored.error().message).handlerError());
    }
    wire::CreateTileResponse response;
    *response.mutable_tile() = *stored;
    attachStates(*response.mutable_tile());
    co_return response;
}

UnaryResult<wire::UpdateTileResponse> LiveTileServiceProvider::updateTile(CallContext caller,
                                                                         wire::UpdateTileRequest request) {
    const bool clearsPreview = request.clears_preview();
    const bool asAdministrator = request.as_administrator();
    return serialized(updateOnStrand(caller, std::move(*request.mutable_tile()), clearsPreview, asAdministrator));
}

asio::awaitable<tl::expected<wire::UpdateTileResponse, HandlerError>> LiveTileServiceProvider::updateOnStrand(
    CallContext caller, Tile tile, bool clearsPreview, bool asAdministrator) {
    const std::string id = tile.id();
    if (id.empty()) co_return tl::unexpected(TileServiceError::idRequired().handlerError());
    auto stored = co_await visibleTile(caller, id);
    if (!stored) {
        Log::line(serviceTag, "updateTile id=" + id + ": no such job");
        co_return tl::unexpected(TileServiceError::noSuchTile().handlerError());
    }
    tile.clear_source_binding_state();
    tile.clear_destination_binding_state();
    for (Side side : bothSides) {
        *mutableSide(tile, side) = co_await applyChangeRules(id, side, sideOf(tile, side), sideOf(*stored, side));
    }
    TileAdmission::EndpointPaths paths;
    Tile owned = tile;
    owned.set_owner_uid(stored->owner_uid());
    if (options_.admission->access().authorityFor(owned).ownerRightsOnly) paths = co_await endpointPaths(tile);
    auto admitted = co_await options_.admission->admitChange(caller, *stored, tile, asAdministrator, std::move(paths));
    if (!admitted) {
        Log::line(serviceTag, "updateTile id=" + id + " refused: " + admitted.error());
        co_return tl::unexpected(HandlerError::failed(admitted.error()));
    }
    auto written = co_await store_.upsert(tile, TileWriteOrigin::client);
    if (!written) {
        Log::line(serviceTag, "updateTile id=" + id + " store.upsert FAILED: " + written.error().message);
        co_return tl::unexpected(TileServiceError::persistenceFailed(written.error().message).handlerError());
    }
    if (clearsPreview) co_await erasePreviews(id);
    co_return wire::UpdateTileResponse{};
}

asio::awaitable<Binding> LiveTileServiceProvider::applyChangeRules(std::string tileID, Side side, Binding incoming,
                                                                   Binding stored) {
    const std::string hint = incoming.bsd_device_hint().empty() ? TileBinding::label(incoming) : incoming.bsd_device_hint();
    const std::string where = "tile=" + tileID + " side=" + sideName(side) + " hint='" + hint + "'";
    if (same(incoming, stored)) co_return stored;
    // Nothing stored worth keeping: the incoming binding is the job's first real one.
    if (TileBinding::isEmpty(stored) || !TileBinding::key(stored)) {
        auto outcome = co_await enricher_.enrich(tileID, side, incoming);
        recordState(tileID, side, outcome.resolution);
        co_return outcome.binding;
    }
    if (TileBinding::isEmpty(incoming)) {
        Log::line(tag, "tile=" + tileID + " side=" + sideName(side) + " cleared by the client");
        co_return incoming;
    }

    // 1. Same volume, and the stored binding resolves healthily: the hint is stale.
    if (TileBinding::sameIdentity(incoming, stored)) {
        auto verdict = co_await enricher_.resolve(stored);
        recordState(tileID, side, verdict);
        if (verdict && verdict->isOk()) {
            if (!same(withSubpath(stored, incoming), incoming)) {
                Log::line(tag, "STALE HINT IGNORED " + where +
                                   " — identity unchanged and binding is healthy, keeping the stored binding");
            }
            co_return withSubpath(stored, incoming);
        }
        auto outcome = co_await enricher_.enrich(tileID, side, incoming);
        recordState(tileID, side, outcome.resolution);
        co_return outcome.enriched() ? outcome.binding : withSubpath(stored, incoming);
    }

    // 2. A different anchor that names a resolvable volume is adopted.
    auto outcome = co_await enricher_.enrich(tileID, side, incoming);
    const bool ownAnchor = TileBinding::key(incoming).has_value();
    if (outcome.enriched() && (ownAnchor || TileBinding::sameIdentity(outcome.binding, stored))) {
        recordState(tileID, side, outcome.resolution);
        const std::string& before = stored.volume_uuid();
        const std::string& after = outcome.binding.volume_uuid();
        if (!before.empty() && !after.empty() && before != after) {
            Log::line(tag, "REANCHOR " + where + " storedVolumeUUID=" + uuidText(before) + " → newVolumeUUID=" +
                               uuidText(after) +
                               " — the persisted binding now names a different volume (re-pick or accepted rebind)");
        } else {
            Log::line(tag, "RE-ASSOCIATE " + where + " — the incoming anchor differs from the stored one; adopting it");
        }
        co_return outcome.binding;
    }

    // 3. Anything else does not justify moving the job: a bare device hint that now names
    //    another volume, or an anchor that names no volume here.
    const std::string resolved = outcome.enriched() ? uuidText(outcome.binding.volume_uuid()) : "<none>";
    Log::line(tag, "REANCHOR REFUSED " + where + " hintResolvedUUID=" + resolved + " — keeping the stored binding");
    co_return withSubpath(stored, incoming);
}

UnaryResult<wire::DeleteTileResponse> LiveTileServiceProvider::deleteTile(CallContext caller,
                                                                         wire::DeleteTileRequest request) {
    return serialized(deleteOnStrand(caller, std::move(*request.mutable_id())));
}

asio::awaitable<tl::expected<wire::DeleteTileResponse, HandlerError>> LiveTileServiceProvider::deleteOnStrand(
    CallContext caller, std::string id) {
    if (id.empty()) co_return tl::unexpected(TileServiceError::idRequired().handlerError());
    if (!co_await visibleTile(caller, id)) co_return tl::unexpected(TileServiceError::noSuchTile().handlerError());
    auto removed = co_await store_.remove(id);
    if (!removed) {
        if (removed.error().kind == TileStoreError::Kind::noSuchTile) {
            co_return tl::unexpected(TileServiceError::noSuchTile().handlerError());
        }
        Log::line(serviceTag, "deleteTile id=" + id + " store FAILED: " + removed.error().message);
        co_return tl::unexpected(TileServiceError::persistenceFailed(removed.error().message).handlerError());
    }
    bindingStates_.erase(id);
    co_await erasePreviews(id);
    co_return wire::DeleteTileResponse{};
}

UnaryResult<wire::ReorderTilesResponse> LiveTileServiceProvider::reorderTiles(CallContext caller,
                                                                             wire::ReorderTilesRequest request) {
    std::vector<std::string> ids(request.tile_ids().begin(), request.tile_ids().end());
    return serialized(reorderOnStrand(caller, std::move(ids)));
}

asio::awaitable<tl::expected<wire::ReorderTilesResponse, HandlerError>> LiveTileServiceProvider::reorderOnStrand(
    CallContext caller, std::vector<std::string> ids) {
    const auto& access = options_.admission->access();
    if (!access.administers(caller)) {
        // A user orders only their own jobs: the slots their jobs hold in the whole order are
        // refilled in the order they asked for; everyone else's jobs keep their places.
        auto tiles = co_await store_.list();
        std::vector<std::string> mine;
        for (const auto& id : ids) {
            auto it = std::find_if(tiles.begin(), tiles.end(), [&](const Tile& t) { return t.id() == id; });
            if (it != tiles.end() && access.mayUse(caller, *it) &&
                std::find(mine.begin(), mine.end(), id) == mine.end()) {
                mine.push_back(id);
            }
        }
        std::vector<std::string> whole;
        std::size_t next = 0;
        for (const auto& tile : tiles) {
            const bool named = std::find(mine.begin(), mine.end(), tile.id()) != mine.end();
            if (named) {
                whole.push_back(mine[next++]);
            } else {
                whole.push_back(tile.id());
            }
        }
        ids = std::move(whole);
    }
    auto reordered = co_await store_.reorder(std::move(ids));
    if (!reordered) {
        co_return tl::unexpected(TileServiceError::persistenceFailed(reordered.error().message).handlerError());
    }
    co_return wire::ReorderTilesResponse{};
}

StreamResult<wire::TileEvent> LiveTileServiceProvider::watchTiles(CallContext caller, wire::WatchTilesRequest) {
    return serialized(watchOnStrand(caller));
}

asio::awaitable<tl::expected<ServerStream<wire::TileEvent>, HandlerError>> LiveTileServiceProvider::watchOnStrand(
    CallContext caller) {
    if (!pumping_) {
        pumping_ = true;
        auto events = co_await store_.subscribe();
        spawnDetached(pump(std::move(events)), std::string(tag));
    }
    auto [producer, consumer] = EventStream<wire::TileEvent>::make();
    watchSubscribers_[Uuid::mint()] = Watcher{caller, producer};
    Log::f(serviceTag, "watchTiles: {} watcher(s)", watchSubscribers_.size());
    co_return std::move(consumer);
}

}  // namespace ql
