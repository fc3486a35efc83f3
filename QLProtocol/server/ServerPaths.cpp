#include "QLProtocol/server/ServerPaths.h"

#include <unistd.h>

#include <cstdlib>
#include <system_error>

namespace ql {
namespace {

std::optional<std::string> environmentValue(const char* name) {
    const char* value = std::getenv(name);
    if (value == nullptr || *value == '\0') return std::nullopt;
    return std::string(value);
}

tl::expected<void, std::string> ensureDirectory(const std::filesystem::path& directory) {
    std::error_code error;
    std::filesystem::create_directories(directory, error);
    if (error) return tl::unexpected(error.message());
    if (!std::filesystem::is_directory(directory, error)) {
        return tl::unexpected(directory.string() + " exists and is not a folder");
    }
    return {};
}

}  // namespace

ServerPaths::Environment ServerPaths::Environment::current() {
    Environment environment;
    environment.isRoot = ::geteuid() == 0;
    environment.xdgStateHome = environmentValue("XDG_STATE_HOME");
    environment.home = environmentValue("HOME");
    return environment;
}

ServerPaths::ServerPaths(std::filesystem::path stateDirectory, std::filesystem::path logDirectory)
    : stateDirectory_(std::move(stateDirectory)), logDirectory_(std::move(logDirectory)) {}

ServerPaths ServerPaths::underRoot(const std::filesystem::path& stateRoot) {
    return ServerPaths(stateRoot, stateRoot / "logs");
}

ServerPaths ServerPaths::linuxDefaults(const Environment& environment) {
    if (environment.isRoot) return ServerPaths("/var/lib/quillo4", "/var/log/quillo4");
    std::filesystem::path base;
    // The XDG rules ignore a relative XDG_STATE_HOME.
    if (environment.xdgStateHome && std::filesystem::path(*environment.xdgStateHome).is_absolute()) {
        base = *environment.xdgStateHome;
    } else if (environment.home) {
        base = std::filesystem::path(*environment.home) / ".local" / "state";
    } else {
        base = std::filesystem::temp_directory_path() / ("quillo4-" + std::to_string(::geteuid()));
        return underRoot(base);
    }
    return underRoot(base / "quillo4");
}

ServerPaths ServerPaths::darwinDefaults() {
    return ServerPaths("/Library/Application Support/Quillo4", "/Library/Logs/Quillo 4");
}

ServerPaths ServerPaths::forPlatform(const std::optional<std::filesystem::path>& stateRootOverride,
                                     const Environment& environment) {
    if (stateRootOverride && !stateRootOverride->empty()) return underRoot(*stateRootOverride);
#ifdef __APPLE__
    (void)environment;
    return darwinDefaults();
#else
    return linuxDefaults(environment);
#endif
}

tl::expected<void, std::string> ServerPaths::ensureStateDirectory() const { return ensureDirectory(stateDirectory_); }

tl::expected<void, std::string> ServerPaths::ensureLogDirectory() const { return ensureDirectory(logDirectory_); }

}  // namespace ql
