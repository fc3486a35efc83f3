#pragma once

#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace ql {

// What the user asked `quillo` to do, read from its command line.
struct CommandLine {
    enum class Command { copy, jobs, run, watch, cancel, pause, resume, remove, edit, status, server };

    Command command = Command::status;
    // copy
    std::string source;
    std::string destination;
    std::string mode = "smart";  // smart, newer, different
    std::optional<std::string> rule;
    bool dryRun = false;
    std::optional<std::string> name;
    // copy, edit: ask an administrator to approve the job copying with the server's full reach
    bool asAdmin = false;
    // run, cancel, pause, resume, remove, edit: a job's name or id (or the start of its id)
    std::string job;
    // Output: line per update even on a terminal; log lines to standard error.
    bool plain = false;
    bool verbose = false;
    // server: arguments passed through to qlcopyserver
    std::vector<std::string> serverArguments;

    // The outcome of reading a command line: the command, or the text to print and the exit
    // status (help and version exit 0; a mistake exits 2 with the reason).
    struct Exit {
        int status = 0;
        std::string text;
    };
    static std::variant<CommandLine, Exit> parse(int argc, const char* const* argv);
};

}  // namespace ql
