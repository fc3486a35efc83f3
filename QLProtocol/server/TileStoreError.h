#pragma once

#include <string>

namespace ql {

// Why a tile-store write did not happen. Nothing in memory or on disk changed.
struct TileStoreError {
    enum class Kind {
        persistenceFailed,  // the new "tiles.json" could not be written; `message` says which step failed
        noSuchTile,         // the write named a job the store does not hold
        idRequired,         // the job to store has no id
    };
    Kind kind = Kind::persistenceFailed;
    std::string message;

    static TileStoreError persistenceFailed(std::string text) { return {Kind::persistenceFailed, std::move(text)}; }
    static TileStoreError noSuchTile() { return {Kind::noSuchTile, "no such job"}; }
    static TileStoreError idRequired() { return {Kind::idRequired, "a job id is required"}; }

    friend bool operator==(const TileStoreError&, const TileStoreError&) = default;
};

}  // namespace ql
