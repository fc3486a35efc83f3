#pragma once

#include "QLProtocol/proto/tiles.pb.h"
#include "QLSupport/Clock.h"

#include <tl/expected.hpp>

#include <filesystem>
#include <map>
#include <string>
#include <string_view>

namespace ql {

// The on-disk form of the job store: "tiles.json" beside its last-known-good copy
// "tiles.json.prev", and the recovery order that a load follows when either is damaged.
//
// The file is a JSON envelope {"schemaVersion": 5, "tiles": [{"proto": "<job>"}, ...]} where each
// job is the protocol-buffer JSON form of ql4.transport.v1.CopyTile held as a string. Versions 4
// and 5 are read; any other version is a schema mismatch and the file is set aside untouched.
//
// Not thread-safe: the owning store calls it from one operation at a time.
class TileStoreFile {
public:
    using Tile = ql4::transport::v1::CopyTile;
    using Tiles = std::map<std::string, Tile>;

    static constexpr int writtenSchemaVersion = 5;

    struct DecodeError {
        enum class Kind { unreadable, schemaMismatch };
        Kind kind = Kind::unreadable;
        std::string message;
        long long version = 0;  // schemaMismatch: the version found
    };

    // A failed save. `text` is the step's sentence ("rename(<path>) failed"); `code` the errno.
    struct SaveError {
        std::string text;
        int code = 0;
        // The sentence followed by the system's description of the errno.
        std::string message() const;
    };

    struct LoadResult {
        Tiles tiles;
        // The jobs came from the last-known-good copy rather than the main file.
        bool recovered = false;
    };

    TileStoreFile(std::filesystem::path mainFile, const Clock& clock);

    const std::filesystem::path& mainFile() const { return mainFile_; }
    std::filesystem::path previousFile() const;

    // Reads the store, falling back to the last-known-good copy and setting bad files aside, as
    // the logs describe. Never fails: the worst outcome is an empty store.
    LoadResult load();

    // Replaces "tiles.json" with these jobs: the current main file is first demoted to
    // "tiles.json.prev" (without ever removing "tiles.json"), the new bytes go to a temporary file
    // that is forced to stable storage and renamed over the main file. Binding states are never
    // written.
    tl::expected<void, SaveError> save(const Tiles& tiles);

    static std::string encode(const Tiles& tiles);
    // Decodes one file's bytes; undecodable jobs are dropped (and logged), the rest kept.
    static tl::expected<Tiles, DecodeError> decode(std::string_view bytes);

private:
    void removeStaleTemporaries();
    // Moves a bad main file aside (or deletes it when that fails).
    void setAside(const DecodeError& error);
    void demote();

    std::filesystem::path mainFile_;
    const Clock& clock_;
    // The main file on disk is one this process wrote or loaded whole, so it may become the
    // last-known-good copy. A main file that could not be read never replaces a good ".prev".
    bool mainFileTrusted_ = false;
};

}  // namespace ql
