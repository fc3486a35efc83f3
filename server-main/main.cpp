// qlcopyserver: the Quillo copy server.

#include "QLSupport/Log.h"
#include "server-main/ServerAssembly.h"
#include "server-main/ServerOptions.h"

#include <asio.hpp>

#include <csignal>
#include <thread>
#include <vector>

namespace {

asio::awaitable<void> startServer(ql::ServerAssembly& assembly, asio::io_context& io, int& exitStatus) {
    auto result = co_await assembly.start();
    if (result) co_return;
    ql::Log::f("qlcopyserver", "could not start: {}", result.error());
    exitStatus = 1;
    io.stop();
}

}  // namespace

int main(int argc, char** argv) {
    auto parsed = ql::ServerOptions::parse(argc, argv);
    if (auto* exitStatus = std::get_if<int>(&parsed)) return *exitStatus;
    auto options = std::get<ql::ServerOptions>(std::move(parsed));

    // A client that goes away mid-write must not end the server.
    std::signal(SIGPIPE, SIG_IGN);

    asio::io_context io;
    auto work = asio::make_work_guard(io);
    ql::ServerAssembly assembly(io, options, ql::ServerOptions::currentExecutable());
    assembly.setOnFinished([&io] { io.stop(); });

    // SIGTERM (the service manager stopping the server) and SIGINT (Ctrl-C in a terminal) drain:
    // active runs are cancelled and their clean-up finishes before the server exits.
    asio::signal_set signals(io, SIGTERM, SIGINT);
    signals.async_wait([&assembly](const std::error_code& error, int signal) {
        if (error) return;
        assembly.requestShutdown(true, signal == SIGTERM ? "SIGTERM" : "SIGINT");
    });

    int exitStatus = 0;
    asio::co_spawn(io, startServer(assembly, io, exitStatus), asio::detached);

    std::vector<std::thread> threads;
    for (unsigned i = 1; i < options.threads; ++i) threads.emplace_back([&io] { io.run(); });
    io.run();
    for (auto& thread : threads) thread.join();
    return exitStatus;
}
