#pragma once

#include "QLModel/CopyTile.h"
#include "QLModel/JsonCoder.h"
#include "QLModel/RunRecord.h"

#include <tl/expected.hpp>

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ql {

// The small per-user JSON file that holds a snapshot of the jobs and their run history
// ("config.json"). Loads and saves on one instance are serialised and never overlap.
//
// Saving is atomic: the bytes go to ".config.json.tmp-<UUID>" beside the file and then replace
// it, so readers see the old or the new file, never a partial one; a failed save leaves the
// previous file in place and removes its temporary file. A corrupt file is reported, never
// overwritten by loading.
class ConfigStore {
public:
    struct Snapshot {
        // The only supported version is 1.
        std::int64_t schemaVersion = 1;
        // The jobs, in the user's order.
        std::vector<CopyTile> tiles;
        // Each job's run records, by job id. In JSON an object keyed by the job's UUID text.
        std::map<Uuid, std::vector<RunRecord>> runHistory;

        // Schema version 1, no jobs, no history.
        static Snapshot empty() { return {}; }

        friend bool operator==(const Snapshot&, const Snapshot&) = default;
    };

    struct StoreError {
        enum class Kind {
            unreadable,         // the file exists but cannot be read or decoded
            unwritable,         // encoding, writing the temporary file or replacing the file failed
            unsupportedSchema,  // the file decoded but its schemaVersion is not 1
        };
        Kind kind = Kind::unreadable;
        // The underlying error's description (unreadable, unwritable).
        std::string description;
        // The version found (unsupportedSchema).
        std::int64_t version = 0;

        static StoreError unreadable(std::string description) { return {Kind::unreadable, std::move(description), 0}; }
        static StoreError unwritable(std::string description) { return {Kind::unwritable, std::move(description), 0}; }
        static StoreError unsupportedSchema(std::int64_t version) { return {Kind::unsupportedSchema, {}, version}; }

        std::string message() const;
        friend bool operator==(const StoreError&, const StoreError&) = default;
    };

    // The file-system service the store uses for existence checks, directory creation, reading,
    // writing and replacement. Errors come back as descriptions.
    class FileManager {
    public:
        virtual ~FileManager() = default;
        virtual bool fileExists(const std::filesystem::path& path) = 0;
        // Creates the directory and every missing parent.
        virtual tl::expected<void, std::string> createDirectory(const std::filesystem::path& path) = 0;
        virtual tl::expected<std::string, std::string> readFile(const std::filesystem::path& path) = 0;
        // Writes a whole file so that it appears complete or not at all.
        virtual tl::expected<void, std::string> writeAtomically(const std::filesystem::path& path,
                                                                std::string_view bytes) = 0;
        // Moves `replacement` over `original` in one step.
        virtual tl::expected<void, std::string> replaceItem(const std::filesystem::path& original,
                                                            const std::filesystem::path& replacement) = 0;
        virtual void removeItem(const std::filesystem::path& path) = 0;
    };

    // The real file system.
    class LiveFileManager : public FileManager {
    public:
        bool fileExists(const std::filesystem::path& path) override;
        tl::expected<void, std::string> createDirectory(const std::filesystem::path& path) override;
        tl::expected<std::string, std::string> readFile(const std::filesystem::path& path) override;
        tl::expected<void, std::string> writeAtomically(const std::filesystem::path& path, std::string_view bytes) override;
        tl::expected<void, std::string> replaceItem(const std::filesystem::path& original,
                                                    const std::filesystem::path& replacement) override;
        void removeItem(const std::filesystem::path& path) override;
    };

    ConfigStore(std::filesystem::path fileURL, std::shared_ptr<FileManager> fileManager);
    explicit ConfigStore(std::filesystem::path fileURL);

    // The per-user location: on macOS the user's Application Support folder (or
    // ~/Library/Application Support when the platform reports none) + "Quillo 4/config.json";
    // on Linux $XDG_CONFIG_HOME (default ~/.config) + "Quillo 4/config.json".
    static std::filesystem::path defaultLocation();
    // "<directory>/Quillo 4/config.json".
    static std::filesystem::path locationIn(const std::filesystem::path& directory);
    // The XDG configuration directory: $XDG_CONFIG_HOME when it is set to an absolute path,
    // otherwise <home>/.config.
    static std::filesystem::path xdgConfigHome(const char* xdgConfigHomeVariable, const std::filesystem::path& home);

    const std::filesystem::path& fileURL() const { return fileURL_; }

    // A missing file is the empty snapshot, not an error.
    tl::expected<Snapshot, StoreError> load();
    tl::expected<void, StoreError> save(const Snapshot& snapshot);

private:
    tl::expected<Snapshot, StoreError> loadLocked();
    tl::expected<void, StoreError> saveLocked(const Snapshot& snapshot);

    std::filesystem::path fileURL_;
    std::shared_ptr<FileManager> fileManager_;
    std::mutex mutex_;
};

template <>
struct JsonCoder<ConfigStore::Snapshot> {
    static Json encode(const ConfigStore::Snapshot& value);
    static tl::expected<ConfigStore::Snapshot, ModelDecodeError> decode(const Json& json, const std::string& path);
};

}  // namespace ql
