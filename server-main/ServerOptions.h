#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace ql {

// The copy server's start-up parameters (`qlcopyserver --help` lists them).
//
// Paths: as root the server keeps its state and logs where the service belongs (macOS:
// "/Library/Application Support/Quillo4/" and "/Library/Logs/Quillo 4/"; Linux: "/var/lib/quillo4"
// and "/var/log/quillo4") and listens on the system socket; as another user it keeps them in
// "$XDG_STATE_HOME/quillo4" (default "~/.local/state/quillo4") and listens in $XDG_RUNTIME_DIR (or
// /tmp). `--state-root` moves all of it under one folder — state in the folder, logs in its
// "logs" folder, the socket "qlcopyserver.sock" in it — for tests and side-by-side servers.
//
// The engine: `--engine`, else "qlcopy" next to the server executable, else the build tree's
// "../qlcopy/qlcopy" beside the server's folder, else the path the build placed it at.
struct ServerOptions {
    std::optional<std::filesystem::path> stateRoot;
    std::optional<std::string> socketPath;
    std::optional<std::string> enginePath;
    // "enforce" or "logOnly"; default enforce as root, logOnly for a user-mode server.
    std::optional<std::string> attestationMode;
    // Clients allowed to obtain a session token (absolute paths); default the `quillo` client
    // next to the server and in the build tree.
    std::vector<std::string> clientExecutables;

    std::size_t eventBufferCap = 1000;
    std::size_t runLogLineCap = 2000;
    std::size_t runRecordRetention = 20;
    std::chrono::seconds engineKillGrace{8};
    std::chrono::seconds copyRuleCheckTimeout{20};
    unsigned threads = 2;
    bool verbose = false;

    // What parsing decided: run with these options, or end at once with an exit status (after
    // --help, --version or a bad command line, whose message CLI11 has already printed).
    using Parsed = std::variant<ServerOptions, int>;
    static Parsed parse(int argc, char** argv);

    // The engine executable for a server started from `serverExecutable`, or nothing when no
    // candidate exists.
    std::optional<std::string> resolveEngine(const std::filesystem::path& serverExecutable) const;
    // The engine locations tried, in order (without `--engine`).
    static std::vector<std::string> engineCandidates(const std::filesystem::path& serverExecutable);
    // The running executable's own path.
    static std::filesystem::path currentExecutable();

    static constexpr const char* kVersion = "4.0.0";
};

}  // namespace ql
