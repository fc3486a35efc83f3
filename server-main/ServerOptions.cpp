#include "server-main/ServerOptions.h"

#include <CLI/CLI.hpp>
#include <unistd.h>

#include <system_error>

namespace ql {

namespace fs = std::filesystem;

ServerOptions::Parsed ServerOptions::parse(int argc, char** argv) {
    ServerOptions options;
    CLI::App app{"qlcopyserver — the Quillo copy server: keeps the copy jobs, runs copies with the qlcopy engine and "
                 "answers the Quillo clients on a Unix socket."};
    app.set_version_flag("--version", kVersion);
    std::string stateRoot, socket, engine, attestation;
    app.add_option("--state-root", stateRoot,
                   "Keep state, logs and the socket under this folder (state in it, logs in its \"logs\" folder, "
                   "socket \"qlcopyserver.sock\")");
    app.add_option("--socket", socket,
                   "Listen on this socket path (default: /run/qlcopyserver.sock as root, "
                   "$XDG_RUNTIME_DIR/qlcopyserver.sock or /tmp/qlcopyserver.sock for a user)");
    app.add_option("--engine", engine,
                   "The qlcopy engine executable (default: qlcopy next to this server, else ../qlcopy/qlcopy, else "
                   "the build's own)");
    app.add_option("--attestation", attestation, "Client attestation: enforce (default as root) or logOnly (default "
                                                  "for a user)")
        ->check(CLI::IsMember({"enforce", "logOnly"}));
    app.add_option("--client-executable", options.clientExecutables,
                   "A client executable allowed to attest (repeatable; default: quillo next to this server and in "
                   "the build tree)");
    app.add_option("--event-buffer", options.eventBufferCap, "State events kept per run for clients that join late")
        ->capture_default_str()
        ->check(CLI::Range(16, 100000));
    app.add_option("--run-log-lines", options.runLogLineCap, "Lines kept per run log (the middle is dropped first)")
        ->capture_default_str()
        ->check(CLI::Range(64, 1000000));
    app.add_option("--run-history", options.runRecordRetention, "Finished runs kept in each job's history")
        ->capture_default_str()
        ->check(CLI::Range(1, 1000));
    int killGrace = static_cast<int>(options.engineKillGrace.count());
    app.add_option("--engine-kill-grace", killGrace,
                   "Seconds between asking a cancelled engine to stop (SIGINT) and killing it (SIGKILL)")
        ->capture_default_str()
        ->check(CLI::Range(1, 600));
    int ruleTimeout = static_cast<int>(options.copyRuleCheckTimeout.count());
    app.add_option("--copy-rule-check-timeout", ruleTimeout, "Seconds the engine gets to check a copy rule")
        ->capture_default_str()
        ->check(CLI::Range(1, 600));
    app.add_option("--threads", options.threads, "Threads serving the event loop")
        ->capture_default_str()
        ->check(CLI::Range(1, 64));
    app.add_flag("--verbose", options.verbose, "Log every event of every run to standard error");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e);
    }
    if (!stateRoot.empty()) options.stateRoot = fs::absolute(stateRoot);
    if (!socket.empty()) options.socketPath = socket;
    if (!engine.empty()) options.enginePath = engine;
    if (!attestation.empty()) options.attestationMode = attestation;
    options.engineKillGrace = std::chrono::seconds(killGrace);
    options.copyRuleCheckTimeout = std::chrono::seconds(ruleTimeout);
    return options;
}

std::vector<std::string> ServerOptions::engineCandidates(const fs::path& serverExecutable) {
    const auto folder = serverExecutable.parent_path();
    std::vector<std::string> candidates = {(folder / "qlcopy").string(),
                                           (folder.parent_path() / "qlcopy" / "qlcopy").string()};
#ifdef QL_ENGINE_BUILD_PATH
    candidates.push_back(QL_ENGINE_BUILD_PATH);
#endif
    return candidates;
}

std::optional<std::string> ServerOptions::resolveEngine(const fs::path& serverExecutable) const {
    if (enginePath) return enginePath;
    for (const auto& candidate : engineCandidates(serverExecutable)) {
        if (::access(candidate.c_str(), X_OK) == 0) return candidate;
    }
    return std::nullopt;
}

}  // namespace ql
