#include "QLModel/ConfigStore.h"

#include "QLModel/JsonObjectReader.h"
#include "QLSupport/AtomicFile.h"
#include "QLSupport/Log.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <system_error>

namespace ql {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kTag = "ConfigStore";

std::string errnoText(int code) { return std::strerror(code); }

std::string jobCount(std::size_t n) { return n == 1 ? "1 job" : fmt::format("{} jobs", n); }

}  // namespace

std::string ConfigStore::StoreError::message() const {
    switch (kind) {
        case Kind::unreadable:
            return fmt::format("The configuration file couldn’t be read: {}", description);
        case Kind::unwritable:
            return fmt::format("The configuration file couldn’t be saved: {}", description);
        case Kind::unsupportedSchema:
            return fmt::format("The configuration file uses schema version {}, which this version of Quillo can’t read.",
                               version);
    }
    return description;
}

// MARK: - Live file manager

bool ConfigStore::LiveFileManager::fileExists(const fs::path& path) {
    std::error_code ec;
    return fs::exists(path, ec);
}

tl::expected<void, std::string> ConfigStore::LiveFileManager::createDirectory(const fs::path& path) {
    std::error_code ec;
    fs::create_directories(path, ec);
    if (ec) return tl::unexpected(fmt::format("could not create {}: {}", path.string(), ec.message()));
    return {};
}

tl::expected<std::string, std::string> ConfigStore::LiveFileManager::readFile(const fs::path& path) {
    auto bytes = AtomicFile::read(path);
    if (!bytes) return tl::unexpected(fmt::format("could not read {}: {}", path.string(), errnoText(bytes.error())));
    return std::move(*bytes);
}

tl::expected<void, std::string> ConfigStore::LiveFileManager::writeAtomically(const fs::path& path,
                                                                              std::string_view bytes) {
    auto written = AtomicFile::write(path, bytes, 0600);
    if (!written) return tl::unexpected(written.error().message());
    return {};
}

tl::expected<void, std::string> ConfigStore::LiveFileManager::replaceItem(const fs::path& original,
                                                                          const fs::path& replacement) {
    if (std::rename(replacement.c_str(), original.c_str()) != 0) {
        return tl::unexpected(fmt::format("could not replace {}: {}", original.string(), errnoText(errno)));
    }
    if (int rc = AtomicFile::syncDirectory(original.parent_path()); rc != 0) {
        return tl::unexpected(fmt::format("could not flush {}: {}", original.parent_path().string(), errnoText(rc)));
    }
    return {};
}

void ConfigStore::LiveFileManager::removeItem(const fs::path& path) {
    std::error_code ec;
    fs::remove(path, ec);
}

// MARK: - Store

ConfigStore::ConfigStore(fs::path fileURL, std::shared_ptr<FileManager> fileManager)
    : fileURL_(std::move(fileURL)), fileManager_(std::move(fileManager)) {}

ConfigStore::ConfigStore(fs::path fileURL) : ConfigStore(std::move(fileURL), std::make_shared<LiveFileManager>()) {}

fs::path ConfigStore::locationIn(const fs::path& directory) { return directory / "Quillo 4" / "config.json"; }

fs::path ConfigStore::xdgConfigHome(const char* xdgConfigHomeVariable, const fs::path& home) {
    if (xdgConfigHomeVariable != nullptr && *xdgConfigHomeVariable != '\0') {
        fs::path configured(xdgConfigHomeVariable);
        // Relative values are invalid and ignored.
        if (configured.is_absolute()) return configured;
    }
    return home / ".config";
}

tl::expected<ConfigStore::Snapshot, ConfigStore::StoreError> ConfigStore::load() {
    std::lock_guard lock(mutex_);
    return loadLocked();
}

tl::expected<void, ConfigStore::StoreError> ConfigStore::save(const Snapshot& snapshot) {
    std::lock_guard lock(mutex_);
    return saveLocked(snapshot);
}

tl::expected<ConfigStore::Snapshot, ConfigStore::StoreError> ConfigStore::loadLocked() {
    if (!fileManager_->fileExists(fileURL_)) {
        Log::f(kTag, "no config file at {}; starting with an empty snapshot", fileURL_.string());
        return Snapshot::empty();
    }
    auto bytes = fileManager_->readFile(fileURL_);
    if (!bytes) {
        Log::f(kTag, "load failed: {}", bytes.error());
        return tl::unexpected(StoreError::unreadable(bytes.error()));
    }
    auto json = parseJson(*bytes);
    if (!json) {
        auto description = ModelDecodeError::invalidJSON(json.error()).description();
        Log::f(kTag, "load failed: {}", description);
        return tl::unexpected(StoreError::unreadable(description));
    }
    // A file from another schema is refused as such, before its content is read with this
    // schema's rules.
    if (json->is_object()) {
        auto version = json->find("schemaVersion");
        if (version != json->end() && version->is_number_integer()) {
            auto found = fromJson<std::int64_t>(*version);
            if (found && *found != 1) {
                Log::f(kTag, "load refused: schema version {} is not supported", *found);
                return tl::unexpected(StoreError::unsupportedSchema(*found));
            }
        }
    }
    auto snapshot = fromJson<Snapshot>(*json);
    if (!snapshot) {
        Log::f(kTag, "load failed: {}", snapshot.error().description());
        return tl::unexpected(StoreError::unreadable(snapshot.error().description()));
    }
    Log::f(kTag, "loaded {} from {}", jobCount(snapshot->tiles.size()), fileURL_.string());
    return std::move(*snapshot);
}

tl::expected<void, ConfigStore::StoreError> ConfigStore::saveLocked(const Snapshot& snapshot) {
    const fs::path directory = fileURL_.parent_path();
    if (!directory.empty() && !fileManager_->fileExists(directory)) {
        if (auto created = fileManager_->createDirectory(directory); !created) {
            Log::f(kTag, "save failed: {}", created.error());
            return tl::unexpected(StoreError::unwritable(created.error()));
        }
    }
    const std::string bytes = dumpJson(toJson(snapshot), 2) + "\n";
    const fs::path temporary =
        directory / fmt::format(".{}.tmp-{}", fileURL_.filename().string(), Uuid::mint().text());

    auto fail = [&](const std::string& description) {
        fileManager_->removeItem(temporary);
        Log::f(kTag, "save failed: {}", description);
        return tl::unexpected(StoreError::unwritable(description));
    };
    if (auto written = fileManager_->writeAtomically(temporary, bytes); !written) return fail(written.error());
    if (auto replaced = fileManager_->replaceItem(fileURL_, temporary); !replaced) return fail(replaced.error());
    Log::f(kTag, "saved {} to {}", jobCount(snapshot.tiles.size()), fileURL_.string());
    return {};
}

// MARK: - JSON

Json JsonCoder<ConfigStore::Snapshot>::encode(const ConfigStore::Snapshot& value) {
    Json history = Json::object();
    for (const auto& [tileID, records] : value.runHistory) history[tileID.text()] = toJson(records);
    return Json{{"schemaVersion", value.schemaVersion}, {"tiles", toJson(value.tiles)}, {"runHistory", history}};
}

tl::expected<ConfigStore::Snapshot, ModelDecodeError> JsonCoder<ConfigStore::Snapshot>::decode(
    const Json& json, const std::string& path) {
    JsonObjectReader r(json, path);
    ConfigStore::Snapshot snapshot;
    snapshot.schemaVersion = r.required<std::int64_t>("schemaVersion");
    snapshot.tiles = r.required<std::vector<CopyTile>>("tiles");
    const Json* history = r.requiredMember("runHistory");
    if (!r.ok()) return tl::unexpected(r.error());
    const std::string historyPath = joinCodingPath(path, "runHistory");
    if (!history->is_object()) {
        return tl::unexpected(ModelDecodeError::typeMismatch(historyPath, "an object", jsonTypeName(*history)));
    }
    for (const auto& [key, records] : history->items()) {
        const std::string entryPath = joinCodingPath(historyPath, key);
        auto tileID = Uuid::parse(key);
        if (!tileID) return tl::unexpected(ModelDecodeError::invalidValue(entryPath, tileID.error()));
        auto decoded = fromJson<std::vector<RunRecord>>(records, entryPath);
        if (!decoded) return tl::unexpected(std::move(decoded.error()));
        if (!snapshot.runHistory.emplace(*tileID, std::move(*decoded)).second) {
            return tl::unexpected(ModelDecodeError::invalidValue(entryPath, "the job appears twice in the run history"));
        }
    }
    return snapshot;
}

}  // namespace ql
