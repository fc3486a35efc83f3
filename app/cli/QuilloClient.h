#pragma once

#include "app/cli/CommandLine.h"
#include "app/core/DaemonConnection.h"

#include <asio.hpp>

#include <iosfwd>
#include <memory>
#include <optional>
#include <string>

namespace ql {

class RunTracker;
class ProgressRenderer;

// The `quillo` commands over the copy server's socket. Every command is one coroutine that
// returns the process's exit status: 0 on success, 1 when the command failed (a copy that
// failed, a job that does not exist, a server that refuses), 3 when no server could be
// reached, 130 when the user stopped a copy with Ctrl-C.
class QuilloClient {
public:
    struct Environment {
        std::ostream* out = nullptr;
        std::ostream* err = nullptr;
        // Whether standard output is a terminal (live progress) and how wide it is.
        bool terminal = false;
        int width = 80;
        std::string workingDirectory;
        // Where `qlcopyserver` is looked for: this program's path and PATH.
        std::string selfExecutable;
        std::string pathVariable;
        // How long a server started in the background may take to answer.
        std::chrono::milliseconds serverStartLimit{15000};
    };

    static constexpr int kSuccess = 0;
    static constexpr int kFailure = 1;
    static constexpr int kUnreachable = 3;
    static constexpr int kInterrupted = 130;

    QuilloClient(asio::io_context& io, CommandLine command, Environment environment);
    ~QuilloClient();

    asio::awaitable<int> run();

private:
    asio::awaitable<int> copy();
    asio::awaitable<int> jobs();
    asio::awaitable<int> runJob();
    asio::awaitable<int> watch();
    asio::awaitable<int> control();
    asio::awaitable<int> remove();
    asio::awaitable<int> edit();
    asio::awaitable<int> status();
    int server();

    // Connects to the server, starting one for this user when none answers and `startServer`.
    asio::awaitable<bool> connect(bool startServer);
    // The job a user named: by exact id, id prefix, or exact name (case-insensitive).
    asio::awaitable<std::optional<ql4::transport::v1::CopyTile>> findJob(std::string named);

    // Follows one run's event stream to its end, drawing its progress; the exit status.
    struct Follow;
    asio::awaitable<int> follow(std::shared_ptr<Follow> run);
    asio::awaitable<void> cancelRun(std::shared_ptr<Follow> run);
    void watchSignals(std::shared_ptr<Follow> run);
    void armSignals(std::shared_ptr<Follow> run);

    std::ostream& out() { return *env_.out; }
    std::ostream& err() { return *env_.err; }
    void fail(const std::string& sentence);
    // The server's own sentence for a refused call, or `what` and the transport's text.
    static std::string refusal(const std::string& what, const TransportError& error);

    asio::io_context& io_;
    CommandLine command_;
    Environment env_;
    std::unique_ptr<DaemonConnection> connection_;
    std::unique_ptr<asio::signal_set> signals_;
};

}  // namespace ql
