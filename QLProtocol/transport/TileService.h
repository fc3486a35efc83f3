#pragma once

#include "QLProtocol/proto/services.pb.h"
#include "QLProtocol/transport/ServiceClient.h"
#include "QLProtocol/transport/ServiceMethod.h"
#include "QLProtocol/transport/ServiceServer.h"

#include <string_view>

namespace ql {

// ql4.transport.v1.TileService: the copy jobs (tiles): listing, editing, ordering and watching
// them.
//
// The provider interface: override the methods this server offers (see ServiceMethod.h for the
// contract); every other method answers "/ql4.transport.v1.TileService/<Method> is not
// available on this server", so this class itself is the provider of a server that offers none.
class TileServiceProvider {
public:
    virtual ~TileServiceProvider() = default;

    virtual UnaryResult<wire::ListTilesResponse> listTiles(CallContext, wire::ListTilesRequest) { return notAvailable; }
    virtual UnaryResult<wire::CreateTileResponse> createTile(CallContext, wire::CreateTileRequest) { return notAvailable; }
    virtual UnaryResult<wire::UpdateTileResponse> updateTile(CallContext, wire::UpdateTileRequest) { return notAvailable; }
    virtual UnaryResult<wire::DeleteTileResponse> deleteTile(CallContext, wire::DeleteTileRequest) { return notAvailable; }
    virtual UnaryResult<wire::ReorderTilesResponse> reorderTiles(CallContext, wire::ReorderTilesRequest) { return notAvailable; }
    virtual StreamResult<wire::TileEvent> watchTiles(CallContext, wire::WatchTilesRequest) { return notAvailable; }
};

// The method table: one line per method.
struct TileService {
    using Provider = TileServiceProvider;
    static constexpr std::string_view fullName = "ql4.transport.v1.TileService";
    using Methods = MethodTable<
        Method<"ListTiles", &Provider::listTiles>,
        Method<"CreateTile", &Provider::createTile>,
        Method<"UpdateTile", &Provider::updateTile>,
        Method<"DeleteTile", &Provider::deleteTile>,
        Method<"ReorderTiles", &Provider::reorderTiles>,
        Method<"WatchTiles", &Provider::watchTiles>>;
};

using TileServiceClient = ServiceClient<TileService>;
using TileServiceServer = ServiceServer<TileService>;

extern template class ServiceServer<TileService>;

}  // namespace ql
