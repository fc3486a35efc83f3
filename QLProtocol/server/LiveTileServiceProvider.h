#pragma once

#include "QLModel/VolumeResolver.h"
#include "QLProtocol/server/CopyTileStore.h"
#include "QLProtocol/server/PreviewEraser.h"
#include "QLProtocol/server/TileBindingEnricher.h"
#include "QLProtocol/server/TileServiceError.h"
#include "QLProtocol/server/VolumeEventSource.h"
#include "QLProtocol/server/access/TileAdmission.h"
#include "QLProtocol/transport/TileService.h"
#include "QLSupport/Actor.h"
#include "QLSupport/Clock.h"

#include <map>
#include <memory>
#include <string>

namespace ql {

// The server side of the tile service: lists, creates, updates, deletes, reorders and watches
// the copy jobs kept by `CopyTileStore`.
//
// Bindings are enriched from the live volume before they are stored; on update each side
// follows the change rules (a stale hint for a healthy binding is ignored, a new anchor that
// resolves is adopted, anything else keeps the stored binding). Bindings that could not be
// enriched are healed when a volume appears (attach-heal, mount-heal). Each binding's latest
// verdict (`BindingState`) is attached to the jobs it sends and never stored.
//
// Jobs are private: a caller sees, watches, edits and deletes only its own jobs unless it
// administers the server (root, or the server's own user); someone else's job answers exactly
// like a missing one. `TileAdmission` stamps the owner and any administrator approval on a job
// and refuses, with its sentence, a job its owner couldn't read from or write to.
//
// An actor; watch subscribers are fed in store-event order by one pump.
class LiveTileServiceProvider final : public Actor, public TileServiceProvider {
public:
    using Tile = ql4::transport::v1::CopyTile;
    using Side = TileBindingEnricher::Side;

    struct Options {
        std::shared_ptr<PreviewEraser> previews;  // null: previews are not kept
        std::shared_ptr<Clock> clock;             // LiveClock when null
        // Owners, approvals and the access pre-check; null: every job belongs to its creator,
        // nothing can be approved and nothing is checked up front.
        std::shared_ptr<TileAdmission> admission;
    };

    LiveTileServiceProvider(const Executor& executor, CopyTileStore& store, VolumeResolver& resolver, Options options);
    ~LiveTileServiceProvider() override;

    // Subscribes to the store, runs the one-time binding migrations and a first heal pass, and
    // starts following `volumeEvents` when given (a source that cannot start is logged).
    asio::awaitable<void> start(std::shared_ptr<VolumeEventSource> volumeEvents = nullptr);
    // Stops following volume events and ends every watch stream (their connections hold the
    // provider, so a server must stop it before it goes away).
    asio::awaitable<void> stop();

    UnaryResult<wire::ListTilesResponse> listTiles(CallContext caller, wire::ListTilesRequest request) override;
    UnaryResult<wire::CreateTileResponse> createTile(CallContext caller, wire::CreateTileRequest request) override;
    UnaryResult<wire::UpdateTileResponse> updateTile(CallContext caller, wire::UpdateTileRequest request) override;
    UnaryResult<wire::DeleteTileResponse> deleteTile(CallContext caller, wire::DeleteTileRequest request) override;
    UnaryResult<wire::ReorderTilesResponse> reorderTiles(CallContext caller,
                                                         wire::ReorderTilesRequest request) override;
    StreamResult<wire::TileEvent> watchTiles(CallContext caller, wire::WatchTilesRequest request) override;

    // A volume appeared: re-enrich the bindings that are still unenriched.
    asio::awaitable<void> heal(VolumeEvent event);
    // The one-time rewrites of old bindings (data anchor, host names); also run by `start`.
    asio::awaitable<void> runMigrations();

private:
    asio::awaitable<tl::expected<wire::ListTilesResponse, HandlerError>> listOnStrand(CallContext caller);
    asio::awaitable<tl::expected<wire::CreateTileResponse, HandlerError>> createOnStrand(CallContext caller, Tile tile,
                                                                                         bool asAdministrator);
    asio::awaitable<tl::expected<wire::UpdateTileResponse, HandlerError>> updateOnStrand(CallContext caller, Tile tile,
                                                                                         bool clearsPreview,
                                                                                         bool asAdministrator);
    asio::awaitable<tl::expected<wire::DeleteTileResponse, HandlerError>> deleteOnStrand(CallContext caller,
                                                                                         std::string id);
    asio::awaitable<tl::expected<wire::ReorderTilesResponse, HandlerError>> reorderOnStrand(
        CallContext caller, std::vector<std::string> ids);
    asio::awaitable<tl::expected<ServerStream<wire::TileEvent>, HandlerError>> watchOnStrand(CallContext caller);
    asio::awaitable<void> stopOnStrand();
    asio::awaitable<void> startOnStrand(std::shared_ptr<VolumeEventSource> volumeEvents);
    asio::awaitable<void> healOnStrand(VolumeEvent event);
    asio::awaitable<void> migrateOnStrand();
    asio::awaitable<void> pump(CopyTileStore::Events::Consumer events);

    // The binding a side keeps on update, by the change rules.
    asio::awaitable<ql4::transport::v1::VolumeBinding> applyChangeRules(std::string tileID, Side side,
                                                                        ql4::transport::v1::VolumeBinding incoming,
                                                                        ql4::transport::v1::VolumeBinding stored);
    // Resolves both sides, records the verdicts and attaches them to the tile.
    asio::awaitable<Tile> withBindingStates(Tile tile);
    void recordState(const std::string& tileID, Side side, const std::optional<Resolution>& resolution);
    void attachStates(Tile& tile) const;
    asio::awaitable<void> erasePreviews(std::string tileID);
    // The folders the job's sides name here now, for the access pre-check.
    asio::awaitable<TileAdmission::EndpointPaths> endpointPaths(Tile tile);
    // The stored job when the caller may use it; nothing for a missing job or someone else's.
    asio::awaitable<std::optional<Tile>> visibleTile(const CallContext& caller, std::string id);

    struct Watcher {
        CallContext caller;
        EventStream<wire::TileEvent>::Producer producer;
    };

    CopyTileStore& store_;
    VolumeResolver& resolver_;
    TileBindingEnricher enricher_;
    Options options_;
    std::map<std::string, std::map<Side, ql4::transport::v1::BindingState>> bindingStates_;
    std::map<Uuid, Watcher> watchSubscribers_;
    std::shared_ptr<VolumeEventSource> volumeEvents_;
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
    bool pumping_ = false;
};

}  // namespace ql
