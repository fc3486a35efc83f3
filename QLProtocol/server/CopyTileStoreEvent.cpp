#include "QLProtocol/server/CopyTileStoreEvent.h"

namespace ql {

const std::string& CopyTileStoreEvent::tileID() const {
    if (auto* a = std::get_if<Added>(&change)) return a->tile.id();
    if (auto* u = std::get_if<Updated>(&change)) return u->tile.id();
    return std::get<Removed>(change).id;
}

}  // namespace ql
