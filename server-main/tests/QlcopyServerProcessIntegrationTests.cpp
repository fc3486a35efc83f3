// The qlcopyserver executable itself: its command line, and a user-mode server's life — it
// starts, answers Ping, and ends cleanly on Shutdown and on SIGTERM.

#include "QLProtocol/runners/tests/QlcopyJobRunnerTestWorld.h"
#include "QLSupport/tests/MachineLimits.h"
#include "QLProtocol/transport/SystemService.h"
#include "QLProtocol/transport/UDSChannel.h"
#include "QLSupport/PosixSpawnedProcess.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>

namespace ql::testing {
namespace {

using ::testing::HasSubstr;

std::string readAll(int fd) {
    std::string out;
    char buffer[4096];
    for (;;) {
        auto n = ::read(fd, buffer, sizeof buffer);
        if (n <= 0) break;
        out.append(buffer, static_cast<std::size_t>(n));
    }
    return out;
}

asio::awaitable<tl::expected<wire::PingResponse, TransportError>> ping(std::shared_ptr<UDSChannel> channel,
                                                                      std::string nonce) {
    SystemServiceClient system(channel);
    wire::PingRequest request;
    request.set_nonce(std::move(nonce));
    co_return co_await system.call<&SystemServiceProvider::ping>(request);
}

asio::awaitable<tl::expected<wire::ShutdownResponse, TransportError>> shutdown(std::shared_ptr<UDSChannel> channel,
                                                                              bool force) {
    SystemServiceClient system(channel);
    wire::ShutdownRequest request;
    request.set_force(force);
    co_return co_await system.call<&SystemServiceProvider::shutdown>(request);
}

asio::awaitable<tl::expected<wire::CollectGeneralDiagnosticResponse, TransportError>> diagnostic(
    std::shared_ptr<UDSChannel> channel) {
    SystemServiceClient system(channel);
    co_return co_await system.call<&SystemServiceProvider::collectGeneralDiagnostic>(
        wire::CollectGeneralDiagnosticRequest{});
}

template <typename T>
T await(asio::io_context& io, asio::awaitable<T> operation) {
    auto future = asio::co_spawn(io, std::move(operation), asio::use_future);
    io.restart();
    while (future.wait_for(std::chrono::milliseconds(0)) != std::future_status::ready) io.run_one_for(std::chrono::milliseconds(50));
    return future.get();
}

// A user-mode server: as root the test runs it as "nobody" (which is what a user-mode server
// is: not root), otherwise as the test's own user. HOME and XDG_RUNTIME_DIR point into a
// temporary folder, so the server's default user paths land there.
class UserModeServer {
public:
    explicit UserModeServer(const fs::path& home) : home_(home) {
        fs::create_directories(home / "run");
        if (::geteuid() == 0) {
            struct passwd* nobody = ::getpwnam("nobody");
            if (!nobody) throw std::runtime_error("no user nobody");
            for (const auto& entry : fs::recursive_directory_iterator(home)) {
                (void)::chown(entry.path().c_str(), nobody->pw_uid, nobody->pw_gid);
            }
            (void)::chown(home.c_str(), nobody->pw_uid, nobody->pw_gid);
            ::chmod((home / "run").c_str(), 0700);
        }
        std::vector<std::string> environment = {"HOME=" + home.string(), "XDG_RUNTIME_DIR=" + (home / "run").string(),
                                                "PATH=/usr/bin:/bin"};
        for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"}) {
            if (const char* value = ::getenv(name)) environment.push_back(std::string(name) + "=" + value);
        }
        PosixSpawnedProcess::Options options;
        options.environment = environment;
        options.eventPipe = false;
        std::string executable = QL_SERVER_EXECUTABLE;
        std::vector<std::string> arguments;
        if (::geteuid() == 0) {
            arguments = {"--reuid=nobody", "--regid=nogroup", "--clear-groups", "--", executable};
            executable = "/usr/bin/setpriv";
        }
        auto spawned = PosixSpawnedProcess::spawn(executable, arguments, options);
        if (!spawned) throw std::runtime_error(spawned.error().message());
        process_.emplace(std::move(*spawned));
    }

    fs::path socket() const { return home_ / "run" / "qlcopyserver.sock"; }
    fs::path stateDirectory() const { return home_ / ".local" / "state" / "quillo4"; }

    bool waitForSocket(std::chrono::seconds limit = std::chrono::seconds(30)) {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        while (std::chrono::steady_clock::now() < deadline) {
            if (fs::exists(socket())) return true;
            if (exited()) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return false;
    }

    std::optional<PosixSpawnedProcess::ExitStatus> waitForExit(std::chrono::seconds limit) {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        while (std::chrono::steady_clock::now() < deadline) {
            if (auto status = process_->tryWait(); status && *status) return **status;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return std::nullopt;
    }

    bool exited() {
        auto status = process_->tryWait();
        return status && *status;
    }

    void signal(int number) { (void)process_->sendSignal(number); }
    // What the server wrote to standard error so far (without waiting for more).
    std::string errorOutput() {
        const int fd = process_->stderrHandle.get();
        ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
        return readAll(fd);
    }

    ~UserModeServer() {
        if (process_ && !process_->reaped()) {
            (void)process_->kill();
            (void)process_->wait();
        }
    }

private:
    fs::path home_;
    std::optional<PosixSpawnedProcess> process_;
};

PosixSpawnedProcess::Options noEventPipe() {
    PosixSpawnedProcess::Options options;
    options.eventPipe = false;
    return options;
}

TEST(QlcopyServerProcess, helpDocumentsEveryParameter) {
    auto spawned = PosixSpawnedProcess::spawn(QL_SERVER_EXECUTABLE, {"--help"}, noEventPipe());
    ASSERT_TRUE(spawned) << spawned.error().message();
    auto help = readAll(spawned->stdoutHandle.get());
    auto status = spawned->wait();
    ASSERT_TRUE(status);
    EXPECT_EQ(status->code, 0);
    for (const auto* parameter : {"--state-root", "--socket", "--engine", "--attestation", "--client-executable",
                                  "--event-buffer", "--run-log-lines", "--run-history", "--engine-kill-grace",
                                  "--copy-rule-check-timeout", "--threads", "--version"}) {
        EXPECT_THAT(help, HasSubstr(parameter));
    }
}

TEST(QlcopyServerProcess, aBadCommandLineIsRefused) {
    auto spawned = PosixSpawnedProcess::spawn(QL_SERVER_EXECUTABLE, {"--engine-kill-grace", "none"}, noEventPipe());
    ASSERT_TRUE(spawned);
    auto error = readAll(spawned->stderrHandle.get());
    auto status = spawned->wait();
    ASSERT_TRUE(status);
    EXPECT_NE(status->code, 0);
    EXPECT_THAT(error, HasSubstr("--engine-kill-grace"));
}

TEST(QlcopyServerProcess, aUserModeServerAnswersPingAndShutsDownOnRequest) {
    if (auto why = ql::testing::whyOtherUsersCantRun()) GTEST_SKIP() << *why;

    TemporaryFolder home;
    UserModeServer server(home.path());
    ASSERT_TRUE(server.waitForSocket()) << server.errorOutput();
    EXPECT_TRUE(fs::is_directory(server.stateDirectory()));

    asio::io_context io;
    auto channel = std::make_shared<UDSChannel>(UDSChannel::Options{server.socket().string()});
    auto pong = await(io, ping(channel, "nonce-123"));
    ASSERT_TRUE(pong) << pong.error().message();
    EXPECT_EQ(pong->nonce(), "nonce-123");
    EXPECT_TRUE(pong->fda_granted());
    struct stat info {};
    ASSERT_EQ(::stat(QL_SERVER_EXECUTABLE, &info), 0);
    EXPECT_EQ(pong->daemon_binary_stamp_unix(), static_cast<std::int64_t>(info.st_mtime));
    const auto now = std::chrono::duration_cast<std::chrono::nanoseconds>(
                         std::chrono::system_clock::now().time_since_epoch())
                         .count();
    EXPECT_LT(std::abs(pong->server_timestamp_unix_nanos() - now), 60'000'000'000LL);

    auto diag = await(io, diagnostic(channel));
    ASSERT_TRUE(diag);
    EXPECT_EQ(diag->error(), "general diagnostic collection is not available");

    auto answer = await(io, shutdown(channel, false));
    ASSERT_TRUE(answer) << answer.error().message();
    EXPECT_TRUE(answer->will_shutdown());
    EXPECT_EQ(answer->active_runs(), 0);
    auto status = server.waitForExit(std::chrono::seconds(20));
    ASSERT_TRUE(status) << "the server did not exit";
    EXPECT_FALSE(status->signalled);
    EXPECT_EQ(status->code, 0);
    EXPECT_FALSE(fs::exists(server.socket()));
}

TEST(QlcopyServerProcess, aUserModeServerEndsCleanlyOnSIGTERM) {
    if (auto why = ql::testing::whyOtherUsersCantRun()) GTEST_SKIP() << *why;

    TemporaryFolder home;
    UserModeServer server(home.path());
    ASSERT_TRUE(server.waitForSocket()) << server.errorOutput();
    server.signal(SIGTERM);
    auto status = server.waitForExit(std::chrono::seconds(20));
    ASSERT_TRUE(status) << "the server did not exit";
    EXPECT_FALSE(status->signalled);
    EXPECT_EQ(status->code, 0);
    auto log = server.errorOutput();
    EXPECT_THAT(log, HasSubstr("shutting down (SIGTERM"));
    EXPECT_THAT(log, HasSubstr("stopped listening"));
    EXPECT_FALSE(fs::exists(server.socket()));
}

}  // namespace
}  // namespace ql::testing
