#pragma once

#include "QLProtocol/transport/HandlerError.h"

#include <string>

namespace ql {

// Why a tile-service call failed. Only a failed store write fails a create or an update;
// enrichment never does.
struct TileServiceError {
    enum class Kind {
        persistenceFailed,  // the store could not save; `message` is its text
        idRequired,         // an update or delete without an id
        noSuchTile,         // an update or delete of a job the store does not hold
        duplicateID,        // a create with the id of an existing job
    };
    Kind kind = Kind::persistenceFailed;
    std::string message;

    static TileServiceError persistenceFailed(std::string text) { return {Kind::persistenceFailed, std::move(text)}; }
    static TileServiceError idRequired() { return {Kind::idRequired, {}}; }
    static TileServiceError noSuchTile() { return {Kind::noSuchTile, {}}; }
    static TileServiceError duplicateID(std::string id) { return {Kind::duplicateID, std::move(id)}; }

    // The sentence the caller reads.
    std::string description() const {
        switch (kind) {
            case Kind::persistenceFailed: return "The copy job could not be saved: " + message;
            case Kind::idRequired: return "A copy job id is required.";
            case Kind::noSuchTile: return "no such job";
            case Kind::duplicateID: return "A copy job with the id " + message + " already exists.";
        }
        return message;
    }
    HandlerError handlerError() const { return HandlerError::failed(description()); }
};

}  // namespace ql
