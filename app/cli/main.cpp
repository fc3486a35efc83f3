#include "app/cli/CommandLine.h"
#include "app/cli/QuilloClient.h"
#include "app/core/ServerLauncher.h"
#include "QLSupport/Log.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <variant>

int main(int argc, char** argv) {
    auto parsed = ql::CommandLine::parse(argc, argv);
    if (auto* exit = std::get_if<ql::CommandLine::Exit>(&parsed)) {
        (exit->status == 0 ? std::cout : std::cerr) << exit->text;
        return exit->status;
    }
    auto command = std::get<ql::CommandLine>(std::move(parsed));

    // The client's own log lines are for diagnosing it; `--verbose` shows them.
    if (!command.verbose) ql::Log::setSink([](std::string_view) {});

    ql::QuilloClient::Environment environment;
    environment.out = &std::cout;
    environment.err = &std::cerr;
    environment.terminal = ::isatty(STDOUT_FILENO) != 0;
    struct winsize size {};
    if (environment.terminal && ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
        environment.width = size.ws_col;
    }
    std::error_code error;
    environment.workingDirectory = std::filesystem::current_path(error).string();
    environment.selfExecutable = ql::ServerLauncher::selfExecutable();
    if (const char* path = std::getenv("PATH")) environment.pathVariable = path;

    asio::io_context io;
    ql::QuilloClient client(io, std::move(command), environment);
    int status = ql::QuilloClient::kFailure;
    asio::co_spawn(io, client.run(), [&](std::exception_ptr failure, int result) {
        if (failure) {
            try {
                std::rethrow_exception(failure);
            } catch (const std::exception& e) {
                std::cerr << "quillo: " << e.what() << "\n";
            }
            status = ql::QuilloClient::kFailure;
        } else {
            status = result;
        }
        io.stop();
    });
    io.run();
    return status;
}
