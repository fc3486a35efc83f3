#pragma once

#include "QLProtocol/proto/tiles.pb.h"

#include <cstdint>
#include <string>
#include <variant>

namespace ql {

// One change of the job store, told to subscribers after it is saved.
struct CopyTileStoreEvent {
    struct Added {
        ql4::transport::v1::CopyTile tile;
    };
    struct Updated {
        ql4::transport::v1::CopyTile tile;
    };
    struct Removed {
        std::string id;
        // Whose job it was, so that only those who could see it hear that it went.
        std::uint32_t ownerUid = 0;
    };
    std::variant<Added, Updated, Removed> change;

    static CopyTileStoreEvent added(ql4::transport::v1::CopyTile tile) { return {Added{std::move(tile)}}; }
    static CopyTileStoreEvent updated(ql4::transport::v1::CopyTile tile) { return {Updated{std::move(tile)}}; }
    static CopyTileStoreEvent removed(std::string id, std::uint32_t ownerUid = 0) {
        return {Removed{std::move(id), ownerUid}};
    }

    // The id of the job the event is about.
    const std::string& tileID() const;
};

}  // namespace ql
