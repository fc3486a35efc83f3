#pragma once

#include <tl/expected.hpp>

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace ql {

// Where the server's socket lives.
//
// Client: `QLCOPYSERVER_SOCK` when set and not empty; otherwise "/var/run/qlcopyserver.sock"
// when a file exists there; on Linux then the user-mode server's socket in $XDG_RUNTIME_DIR
// when one exists there; otherwise "/tmp/qlcopyserver.sock".
//
// Server defaults: on macOS "/var/run/qlcopyserver.sock". On Linux, as root
// "/run/qlcopyserver.sock" (which "/var/run/qlcopyserver.sock" also names); as a user
// "$XDG_RUNTIME_DIR/qlcopyserver.sock", or "/tmp/qlcopyserver.sock" without a runtime folder.
//
// The attestation socket (Linux) sits next to the main one: "qlcopyserver.sock" becomes
// "qlcopyserver.attest.sock".
struct SocketPath {
    static constexpr std::string_view environmentVariable = "QLCOPYSERVER_SOCK";
    static constexpr std::string_view fileName = "qlcopyserver.sock";
    static constexpr std::string_view systemPath = "/var/run/qlcopyserver.sock";
    static constexpr std::string_view linuxRootPath = "/run/qlcopyserver.sock";
    static constexpr std::string_view fallbackPath = "/tmp/qlcopyserver.sock";

    // Reads an environment variable (nullopt when unset); checks that a file exists.
    using Environment = std::function<std::optional<std::string>(std::string_view name)>;
    using FileExists = std::function<bool(const std::string& path)>;

    static std::string forClient();
    static std::string forClient(const Environment& environment, const FileExists& exists, bool linuxHost);

    static std::string serverDefault();
    static std::string serverDefault(bool runningAsRoot, const Environment& environment, bool linuxHost);

    static std::string attestationPath(std::string_view mainSocketPath);

    // Makes `path` free for binding: nothing there is fine; a socket that no server answers on
    // (left by a server that died) is removed; a socket a live server still answers on, or a
    // file that is not a socket, is refused with a sentence saying so.
    static tl::expected<void, std::string> clearStale(const std::string& path);

    static Environment processEnvironment();
    static bool fileExists(const std::string& path);
};

}  // namespace ql
