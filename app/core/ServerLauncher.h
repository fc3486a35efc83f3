#pragma once

#include <tl/expected.hpp>

#include <optional>
#include <string>
#include <vector>

namespace ql {

// Starts a copy server for the current user when none answers: the `qlcopyserver` executable
// next to this program (an installation's bin folder), in a build tree's "server-main" folder
// beside this program's folder, or on PATH. It runs in the background in its own session, so
// it outlives the command that started it, with its output appended to a log file.
struct ServerLauncher {
    struct Plan {
        std::string executable;
        std::vector<std::string> arguments;  // after the executable's name
        std::string logPath;
    };

    // The server executable for a client at `selfExecutable`, searching `pathVariable` last.
    static std::optional<std::string> findServer(const std::string& selfExecutable, const std::string& pathVariable);
    // This process's own executable (/proc/self/exe on Linux).
    static std::string selfExecutable();

    // Starts the plan in the background; the process id, or a sentence.
    static tl::expected<int, std::string> start(const Plan& plan);
    // Replaces this process with the plan's program, in the foreground; returns only on failure.
    static std::string exec(const Plan& plan);
};

}  // namespace ql
