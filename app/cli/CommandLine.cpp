#include "app/cli/CommandLine.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <sstream>

namespace ql {

std::variant<CommandLine, CommandLine::Exit> CommandLine::parse(int argc, const char* const* argv) {
    CommandLine line;
    CLI::App app{"quillo — copy folders with Quillo's copy server and watch the copy happen", "quillo"};
    app.require_subcommand(1);
    app.add_flag("--plain", line.plain, "One line per update, even on a terminal");
    app.add_flag("-v,--verbose", line.verbose, "Show the client's log lines on standard error");
    app.set_version_flag("--version", "quillo 4.0.0");

    auto* copy = app.add_subcommand("copy", "Copy a folder to another folder, and show the copy as it happens");
    copy->add_option("SOURCE", line.source, "The folder to copy")->required();
    copy->add_option("DEST", line.destination, "The folder to copy into (created if its parent exists)")->required();
    copy->add_option("--mode", line.mode, "How files are compared: smart (Smart Update, the default), newer "
                                          "(Copy Newer) or different (Copy Different)")
        ->check(CLI::IsMember({"smart", "newer", "different"}));
    copy->add_option("--rule", line.rule, "The copy rule that selects the files (its name, with or without .dset)");
    copy->add_flag("--dry-run", line.dryRun, "Show what would be copied without changing anything");
    copy->add_option("--name", line.name, "The job's name (default: \"SOURCE-folder → DEST-folder\")");
    copy->add_flag("--as-admin", line.asAdmin,
                   "Copy with the copy server's full reach (files you can't read or write yourself); an "
                   "administrator must approve");

    app.add_subcommand("jobs", "List the copy jobs: source, destination, mode, schedule and last result");
    auto* run = app.add_subcommand("run", "Run a stored job now and show its progress");
    run->add_option("JOB", line.job, "The job's name or id")->required();
    app.add_subcommand("watch", "Show the copies that are running now");
    auto* cancel = app.add_subcommand("cancel", "Stop a job's running copy");
    cancel->add_option("JOB", line.job, "The job's name or id")->required();
    auto* pause = app.add_subcommand("pause", "Pause a job's running copy");
    pause->add_option("JOB", line.job, "The job's name or id")->required();
    auto* resume = app.add_subcommand("resume", "Resume a job's paused copy");
    resume->add_option("JOB", line.job, "The job's name or id")->required();
    auto* remove = app.add_subcommand("remove", "Delete a copy job (its copies stay where they are)");
    remove->add_option("JOB", line.job, "The job's name or id")->required();
    auto* edit = app.add_subcommand("edit", "Change a copy job");
    edit->add_option("JOB", line.job, "The job's name or id")->required();
    edit->add_flag("--as-admin", line.asAdmin,
                   "Let the job copy with the copy server's full reach; an administrator must approve")
        ->required();
    app.add_subcommand("status", "Whether the copy server answers, its version, and the copies running");
    auto* server = app.add_subcommand("server", "Run a copy server for this user in the foreground");
    server->allow_extras();
    server->prefix_command();

    // The first word that is not an option names the command; an unknown one is named back
    // rather than reported as a missing command.
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word.starts_with("-")) continue;
        const auto all = app.get_subcommands([](CLI::App*) { return true; });
        const bool known = std::any_of(all.begin(), all.end(), [&](CLI::App* sub) { return sub->get_name() == word; });
        if (!known) {
            std::string names;
            for (const auto* sub : all) names += (names.empty() ? "" : ", ") + sub->get_name();
            return Exit{2, "quillo: there is no command “" + word + "”; the commands are " + names +
                               ". Run quillo --help for more.\n"};
        }
        break;
    }

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        std::ostringstream out, err;
        const int status = app.exit(error, out, err);
        std::string text = out.str() + err.str();
        return Exit{status == 0 ? 0 : 2, text};
    }

    const auto* chosen = app.get_subcommands().front();
    const std::string name = chosen->get_name();
    if (name == "copy") line.command = Command::copy;
    if (name == "jobs") line.command = Command::jobs;
    if (name == "run") line.command = Command::run;
    if (name == "watch") line.command = Command::watch;
    if (name == "cancel") line.command = Command::cancel;
    if (name == "pause") line.command = Command::pause;
    if (name == "resume") line.command = Command::resume;
    if (name == "remove") line.command = Command::remove;
    if (name == "edit") line.command = Command::edit;
    if (name == "status") line.command = Command::status;
    if (name == "server") {
        line.command = Command::server;
        line.serverArguments = server->remaining();
    }
    return line;
}

}  // namespace ql
