#include "QLProtocol/server/TileStoreFile.h"

#include "QLSupport/AtomicFile.h"
#include "QLSupport/Json.h"
#include "QLSupport/Log.h"
#include "QLSupport/Uuid.h"

#include <google/protobuf/util/json_util.h>

#include <date/date.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

namespace ql {
namespace {

constexpr std::string_view tag = "CopyTileStore";

struct Fd {
    int fd = -1;
    ~Fd() {
        if (fd >= 0) ::close(fd);
    }
};

bool writeAll(int fd, std::string_view bytes) {
    const char* p = bytes.data();
    std::size_t left = bytes.size();
    while (left > 0) {
        ssize_t n = ::write(fd, p, left);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        p += n;
        left -= static_cast<std::size_t>(n);
    }
    return true;
}

// Forces a file's bytes to stable storage. macOS needs F_FULLFSYNC to get past the drive's
// write cache; elsewhere fsync does that.
int fullSync(int fd) {
#ifdef F_FULLFSYNC
    if (::fcntl(fd, F_FULLFSYNC) == 0) return 0;
    // Some file systems (network shares) lack it; fall back to fsync there.
#endif
    return ::fsync(fd) == 0 ? 0 : errno;
}

std::string randomSuffix() { return Uuid::mint().text().substr(0, 8); }

bool pathExists(const std::filesystem::path& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

// Writes `bytes` to a new file at `path` and forces them to disk.
tl::expected<void, TileStoreFile::SaveError> writeSynced(const std::filesystem::path& path, std::string_view bytes) {
    Fd file{::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600)};
    if (file.fd < 0) {
        return tl::unexpected(TileStoreFile::SaveError{"open(" + path.string() + ") for F_FULLFSYNC failed", errno});
    }
    auto fail = [&](std::string text) {
        int code = errno;
        ::unlink(path.c_str());
        return tl::unexpected(TileStoreFile::SaveError{std::move(text), code});
    };
    if (!writeAll(file.fd, bytes)) return fail("write(" + path.string() + ") failed");
    if (int code = fullSync(file.fd); code != 0) {
        errno = code;
        return fail("open(" + path.string() + ") for F_FULLFSYNC failed");
    }
    if (::close(file.fd) != 0) {
        file.fd = -1;
        return fail("close(" + path.string() + ") failed");
    }
    file.fd = -1;
    return {};
}

int sortKeyCompare(const TileStoreFile::Tile& a, const TileStoreFile::Tile& b) {
    if (a.has_sort_order() != b.has_sort_order()) return a.has_sort_order() ? -1 : 1;
    if (a.has_sort_order() && a.sort_order() != b.sort_order()) return a.sort_order() < b.sort_order() ? -1 : 1;
    return a.id().compare(b.id());
}

}  // namespace

std::string TileStoreFile::SaveError::message() const {
    if (code == 0) return text;
    return text + ": " + std::strerror(code);
}

TileStoreFile::TileStoreFile(std::filesystem::path mainFile, const Clock& clock)
    : mainFile_(std::move(mainFile)), clock_(clock) {}

std::filesystem::path TileStoreFile::previousFile() const {
    auto p = mainFile_;
    p += ".prev";
    return p;
}

std::string TileStoreFile::encode(const Tiles& tiles) {
    std::vector<const Tile*> ordered;
    ordered.reserve(tiles.size());
    for (const auto& [id, tile] : tiles) ordered.push_back(&tile);
    std::sort(ordered.begin(), ordered.end(), [](const Tile* a, const Tile* b) { return sortKeyCompare(*a, *b) < 0; });

    google::protobuf::util::JsonPrintOptions options;
    options.add_whitespace = false;
    options.preserve_proto_field_names = false;
    Json entries = Json::array();
    for (const Tile* tile : ordered) {
        Tile stored = *tile;
        stored.clear_source_binding_state();
        stored.clear_destination_binding_state();
        std::string text;
        auto status = google::protobuf::util::MessageToJsonString(stored, &text, options);
        if (!status.ok()) {
            // Only invalid UTF-8 in a string field can fail here; such a job keeps its place
            // with the text repaired rather than vanishing from the file.
            Log::f(tag, "encoding tile {} failed ({}); writing it with repaired text", tile->id(),
                   std::string(status.message()));
            text = "{\"id\":" + dumpJson(Json(tile->id())) + "}";
        }
        entries.push_back(Json{{"proto", std::move(text)}});
    }
    Json envelope{{"schemaVersion", writtenSchemaVersion}, {"tiles", std::move(entries)}};
    return dumpJson(envelope, 2) + "\n";
}

tl::expected<TileStoreFile::Tiles, TileStoreFile::DecodeError> TileStoreFile::decode(std::string_view bytes) {
    auto parsed = parseJson(bytes);
    if (!parsed) return tl::unexpected(DecodeError{DecodeError::Kind::unreadable, parsed.error(), 0});
    const Json& envelope = *parsed;
    if (!envelope.is_object()) {
        return tl::unexpected(DecodeError{DecodeError::Kind::unreadable,
                                          "the store is a JSON " + jsonTypeName(envelope) + ", not an object", 0});
    }
    // Version peek: nothing else is looked at before the version is known to be readable.
    auto version = envelope.find("schemaVersion");
    if (version == envelope.end() || !version->is_number_integer()) {
        return tl::unexpected(
            DecodeError{DecodeError::Kind::unreadable, "schemaVersion is missing or not an integer", 0});
    }
    const auto v = version->get<long long>();
    if (v != 4 && v != 5) {
        return tl::unexpected(DecodeError{DecodeError::Kind::schemaMismatch,
                                          "schemaVersion " + std::to_string(v) + " is not 4 or 5", v});
    }
    auto list = envelope.find("tiles");
    if (list == envelope.end() || !list->is_array()) {
        return tl::unexpected(DecodeError{DecodeError::Kind::unreadable, "tiles is missing or not an array", 0});
    }

    google::protobuf::util::JsonParseOptions options;
    options.ignore_unknown_fields = true;
    Tiles tiles;
    std::size_t index = 0;
    for (const auto& entry : *list) {
        const std::size_t position = index++;
        auto drop = [&](const std::string& error) {
            Log::line(tag, "DROPPED undecodable tile during load: tiles[" + std::to_string(position) + "]: " + error);
        };
        if (!entry.is_object()) {
            drop("entry is a JSON " + jsonTypeName(entry) + ", not an object");
            continue;
        }
        auto proto = entry.find("proto");
        if (proto == entry.end() || !proto->is_string()) {
            drop("proto is missing or not a string");
            continue;
        }
        std::string text = proto->get<std::string>();
        // The field's old name.
        static constexpr std::string_view oldKey = "\"copyScriptFilename\"";
        static constexpr std::string_view newKey = "\"copyRuleFilename\"";
        for (auto at = text.find(oldKey); at != std::string::npos; at = text.find(oldKey, at + newKey.size())) {
            text.replace(at, oldKey.size(), newKey);
        }
        Tile tile;
        auto status = google::protobuf::util::JsonStringToMessage(text, &tile, options);
        if (!status.ok()) {
            drop(std::string(status.message()));
            continue;
        }
        if (tile.id().empty()) {
            drop("the job has no id");
            continue;
        }
        tile.clear_source_binding_state();
        tile.clear_destination_binding_state();
        if (tiles.count(tile.id()) != 0) {
            Log::line(tag, "duplicate tile id " + tile.id() + " during load; the later entry wins");
        }
        tiles[tile.id()] = std::move(tile);
    }
    return tiles;
}

void TileStoreFile::removeStaleTemporaries() {
    const auto directory = mainFile_.parent_path();
    const std::string mainName = mainFile_.filename().string();
    const std::string prefixes[] = {"." + mainName + ".tmp-", "." + mainName + ".prev.tmp-"};
    std::error_code error;
    for (std::filesystem::directory_iterator it(directory, error), end; !error && it != end; it.increment(error)) {
        const std::string name = it->path().filename().string();
        for (const auto& prefix : prefixes) {
            if (name.rfind(prefix, 0) != 0) continue;
            if (::unlink(it->path().c_str()) == 0) {
                Log::line(tag, "removed " + name + " left by an interrupted save");
            }
        }
    }
}

void TileStoreFile::setAside(const DecodeError& error) {
    const std::string stamp = date::format("%Y%m%dT%H%M%SZ", date::floor<std::chrono::seconds>(clock_.now()));
    const std::string tagWord =
        error.kind == DecodeError::Kind::schemaMismatch ? "schema" + std::to_string(error.version) : "corrupt";
    std::filesystem::path aside;
    for (int attempt = 0; attempt < 100; ++attempt) {
        std::string name = mainFile_.filename().string() + "." + tagWord + "-" + stamp;
        if (attempt > 0) name += "-" + std::to_string(attempt);
        aside = mainFile_.parent_path() / (name + ".bak");
        if (!pathExists(aside)) break;
    }
    if (::rename(mainFile_.c_str(), aside.c_str()) == 0) {
        AtomicFile::syncDirectory(mainFile_.parent_path());
        if (error.kind == DecodeError::Kind::schemaMismatch) {
            Log::line(tag, "schema mismatch at " + mainFile_.string() + "; moved to " + aside.string() +
                               ", starting fresh");
        } else {
            Log::line(tag, "unreadable store at " + mainFile_.string() + "; moved to " + aside.string());
        }
        return;
    }
    const int code = errno;
    Log::line(tag, std::string("could not move bad store aside (") + std::strerror(code) +
                       "); DELETING it so it cannot poison " + mainFile_.string());
    ::unlink(mainFile_.c_str());
}

TileStoreFile::LoadResult TileStoreFile::load() {
    removeStaleTemporaries();
    mainFileTrusted_ = false;
    const std::string mainName = mainFile_.filename().string();
    std::string reason;
    if (pathExists(mainFile_)) {
        auto bytes = AtomicFile::read(mainFile_);
        if (!bytes) {
            Log::line(tag, mainName + " exists but is unreadable (" + std::strerror(bytes.error()) + "); starting fresh");
            reason = "main file unreadable";
        } else if (auto decoded = decode(*bytes)) {
            mainFileTrusted_ = true;
            Log::f(tag, "loaded {} tile(s) from {}", decoded->size(), mainFile_.string());
            return LoadResult{std::move(*decoded), false};
        } else {
            Log::line(tag, mainName + " could not be decoded: " + decoded.error().message);
            setAside(decoded.error());
            reason = "main file unreadable";
        }
    } else {
        reason = mainName + " missing";
    }

    const auto previous = previousFile();
    const std::string previousName = previous.filename().string();
    if (!pathExists(previous)) {
        Log::line(tag, "no " + previousName + " to fall back on (" + reason + "); starting with no tiles");
        return {};
    }
    auto bytes = AtomicFile::read(previous);
    if (!bytes) {
        Log::line(tag, previousName + " also unusable (" + std::strerror(bytes.error()) + "); starting fresh");
        return {};
    }
    auto decoded = decode(*bytes);
    if (!decoded) {
        Log::line(tag, previousName + " also unusable (" + decoded.error().message + "); starting fresh");
        return {};
    }
    LoadResult result{std::move(*decoded), true};
    if (auto saved = save(result.tiles)) {
        Log::f(tag, "RECOVERED {} tile(s) from {} ({}); main file restored", result.tiles.size(), previousName, reason);
    } else {
        Log::f(tag, "RECOVERED {} tile(s) from {} ({}) but re-persist failed ({}); main file restored on next mutation",
               result.tiles.size(), previousName, reason, saved.error().message());
    }
    return result;
}

void TileStoreFile::demote() {
    const auto previous = previousFile();
    const auto temporary = mainFile_.parent_path() / ("." + mainFile_.filename().string() + ".prev.tmp-" + randomSuffix());
    // A second name for the current main file, then a rename over the old ".prev": the main file
    // itself is never moved, so there is no moment without "tiles.json".
    if (::link(mainFile_.c_str(), temporary.c_str()) != 0) {
        // File systems without hard links get a copy instead.
        auto bytes = AtomicFile::read(mainFile_);
        if (!bytes) {
            Log::f(tag, "demote to {} failed (errno {}); last-known-good is stale", previous.string(), bytes.error());
            return;
        }
        if (auto written = writeSynced(temporary, *bytes); !written) {
            Log::f(tag, "demote to {} failed (errno {}); last-known-good is stale", previous.string(),
                   written.error().code);
            return;
        }
    }
    if (::rename(temporary.c_str(), previous.c_str()) != 0) {
        const int code = errno;
        ::unlink(temporary.c_str());
        Log::f(tag, "demote to {} failed (errno {}); last-known-good is stale", previous.string(), code);
    }
}

tl::expected<void, TileStoreFile::SaveError> TileStoreFile::save(const Tiles& tiles) {
    const std::string bytes = encode(tiles);
    if (mainFileTrusted_ && pathExists(mainFile_)) demote();

    const auto directory = mainFile_.parent_path();
    const auto temporary = directory / ("." + mainFile_.filename().string() + ".tmp-" + randomSuffix());
    if (auto written = writeSynced(temporary, bytes); !written) return tl::unexpected(written.error());
    if (::rename(temporary.c_str(), mainFile_.c_str()) != 0) {
        const int code = errno;
        ::unlink(temporary.c_str());
        return tl::unexpected(SaveError{"rename(" + mainFile_.string() + ") failed", code});
    }
    mainFileTrusted_ = true;
    if (int code = AtomicFile::syncDirectory(directory); code != 0) {
        // The new file is in place; only the directory entry's durability is in question.
        Log::f(tag, "syncing {} after the save failed ({})", directory.string(), std::strerror(code));
    }
    return {};
}

}  // namespace ql
