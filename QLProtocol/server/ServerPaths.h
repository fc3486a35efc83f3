#pragma once

#include <tl/expected.hpp>

#include <filesystem>
#include <optional>
#include <string>

namespace ql {

// Where the copy server keeps its state and its logs.
//
// macOS: state in "/Library/Application Support/Quillo4/", logs in "/Library/Logs/Quillo 4/".
// Linux as root: "/var/lib/quillo4" and "/var/log/quillo4". Linux as another user:
// "$XDG_STATE_HOME/quillo4" (default "~/.local/state/quillo4") with the logs in its "logs"
// folder. A state root given at start-up (user mode, tests) replaces all of these: state in the
// root, logs in its "logs" folder.
class ServerPaths {
public:
    struct Environment {
        bool isRoot = false;
        std::optional<std::string> xdgStateHome;
        std::optional<std::string> home;

        static Environment current();
    };

    ServerPaths(std::filesystem::path stateDirectory, std::filesystem::path logDirectory);

    // The platform's paths for the given environment, or those under `stateRootOverride`.
    static ServerPaths forPlatform(const std::optional<std::filesystem::path>& stateRootOverride = std::nullopt,
                                   const Environment& environment = Environment::current());
    static ServerPaths underRoot(const std::filesystem::path& stateRoot);
    // The Linux rules, callable anywhere so that they can be checked on any build machine.
    static ServerPaths linuxDefaults(const Environment& environment);
    static ServerPaths darwinDefaults();

    const std::filesystem::path& stateDirectory() const { return stateDirectory_; }
    const std::filesystem::path& logDirectory() const { return logDirectory_; }

    // State files.
    std::filesystem::path tilesFile() const { return stateDirectory_ / "tiles.json"; }
    std::filesystem::path previewsDatabase() const { return stateDirectory_ / "previews.db"; }
    std::filesystem::path lockStateFile() const { return stateDirectory_ / "lock-state.json"; }
    std::filesystem::path keybagMemo() const { return stateDirectory_ / "keybag-dp-supported"; }
    std::filesystem::path legacyKeybagMemo() const { return stateDirectory_ / ".dp-supported"; }
    std::filesystem::path journalMap() const { return stateDirectory_ / "journal-map.json"; }
    std::filesystem::path fsEventsStateDirectory() const { return stateDirectory_ / "FSEventsState"; }
    std::filesystem::path machineIdentityFile() const { return stateDirectory_ / "machine-identity.json"; }

    // Log files.
    std::filesystem::path schedulerLog() const { return logDirectory_ / "scheduler.log"; }
    std::filesystem::path generalDiagnostics() const { return logDirectory_ / "general.diag.json"; }

    // Creates the state directory with its parents when missing (mode 0755); the error is the
    // system's description.
    tl::expected<void, std::string> ensureStateDirectory() const;
    tl::expected<void, std::string> ensureLogDirectory() const;

private:
    std::filesystem::path stateDirectory_;
    std::filesystem::path logDirectory_;
};

}  // namespace ql
