// A root copy server serving several local users, tried as they would: the real qlcopyserver
// runs as root with attestation enforced, and real unprivileged users run the real `quillo` at
// its socket. Nobody gets more than their own rights unless an administrator approved, here
// through the real polkitd on a private system bus.

#include "QLProtocol/server/approval/tests/PrivatePolkit.h"
#include "QLSupport/PosixSpawnedProcess.h"
#include "QLSupport/tests/MachineLimits.h"
#include "QLSupport/ShellRunner.h"
#include "QLSupport/UserCredentials.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <thread>

namespace ql::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::Not;

std::string readFile(const fs::path& path) {
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

struct Ownership {
    uid_t uid = 0;
    unsigned mode = 0;
};
Ownership ownershipOf(const fs::path& path) {
    struct stat st {};
    ::lstat(path.c_str(), &st);
    return {st.st_uid, st.st_mode & 07777};
}

// What one `quillo` command printed and how it ended.
struct Outcome {
    int status = -1;
    std::string out;
    std::string err;
};

// A root server in a temporary state folder, and the users who call it.
class RootServer {
public:
    explicit RootServer(std::vector<std::string> environment = {}) {
        char pattern[] = "/var/tmp/quillo-rights-XXXXXX";
        if (!::mkdtemp(pattern)) throw std::runtime_error("mkdtemp failed");
        dir_ = pattern;
        fs::permissions(dir_, fs::perms(0755));
        fs::create_directories(dir_ / "state");
        fs::permissions(dir_ / "state", fs::perms(0755));
        for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS", "PATH"}) {
            if (const char* value = ::getenv(name)) environment.push_back(std::string(name) + "=" + value);
        }
        PosixSpawnedProcess::Options options;
        options.environment = environment;
        options.eventPipe = false;
        const std::vector<std::string> arguments = {"--state-root", (dir_ / "state").string(), "--engine",
                                                    QL_ENGINE_EXECUTABLE, "--attestation", "enforce",
                                                    "--client-executable", QL_CLIENT_EXECUTABLE};
        auto spawned = PosixSpawnedProcess::spawn(QL_SERVER_EXECUTABLE, arguments, options);
        if (!spawned) throw std::runtime_error(spawned.error().message());
        server_.emplace(std::move(*spawned));
        // The server's log goes to a file the tests can quote when something is off.
        logReader_ = std::thread([this, fd = server_->stderrHandle.release()] {
            std::ofstream log(dir_ / "server.log");
            char buffer[4096];
            for (;;) {
                auto n = ::read(fd, buffer, sizeof buffer);
                if (n <= 0) break;
                log.write(buffer, n).flush();
            }
            ::close(fd);
        });
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (!fs::exists(socket()) && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    }
    ~RootServer() {
        if (server_) {
            (void)server_->sendSignal(SIGTERM);
            for (int i = 0; i < 200; ++i) {
                auto status = server_->tryWait();
                if (!status || *status) break;
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
            }
            (void)server_->kill();
            (void)server_->wait();
        }
        if (logReader_.joinable()) logReader_.join();
        std::error_code ignored;
        fs::remove_all(dir_, ignored);
    }

    fs::path socket() const { return dir_ / "state" / "qlcopyserver.sock"; }
    const fs::path& dir() const { return dir_; }
    std::string log() const { return readFile(dir_ / "server.log"); }

    // A folder of the test's, owned by `user` (root's when none).
    fs::path folder(const std::string& name, const std::optional<TestUser>& user, unsigned mode = 0755) const {
        const auto path = dir_ / name;
        fs::create_directories(path);
        if (user) ::chown(path.c_str(), user->uid, user->gid);
        fs::permissions(path, fs::perms(mode));
        return path;
    }

    // Runs `quillo` as `user` (root when none) against this server.
    Outcome quillo(const std::optional<TestUser>& user, std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), "--plain");
        ShellCommand command;
        command.executable = QL_CLIENT_EXECUTABLE;
        command.arguments = std::move(arguments);
        command.timeout = std::chrono::seconds(120);
        if (user) {
            auto credentials = UserCredentials::forUser(user->uid);
            if (!credentials) throw std::runtime_error(credentials.error());
            command.runAs = *credentials;
        }
        BlockingPool pool(1);
        LiveShellRunner runner(pool);
        auto result = runner.runBlocking(command);
        if (!result) return Outcome{-1, "", result.error().message()};
        return Outcome{result->exitCode, result->stdout, result->stderr};
    }

private:
    fs::path dir_;
    std::optional<PosixSpawnedProcess> server_;
    std::thread logReader_;
};

class CallerRights : public ::testing::Test {
protected:
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "needs root: the server must be a root server serving other users";
        if (auto why = whyOtherUsersCantRun()) GTEST_SKIP() << *why;
        if (auto why = whyNoVolumeHoldsRoot()) GTEST_SKIP() << *why;
        auto a = ensureTestUser("quillo-test-a");
        auto b = ensureTestUser("quillo-test-b");
        if (!a || !b) GTEST_SKIP() << "test users could not be made: " << (!a ? a.error() : b.error());
        ann = *a;
        bob = *b;
        socket.emplace("QLCOPYSERVER_SOCK", "");
    }

    void useServer(const RootServer& server) {
        socket.reset();
        socket.emplace("QLCOPYSERVER_SOCK", server.socket().string());
        ASSERT_TRUE(fs::exists(server.socket())) << server.log();
    }

    TestUser ann;
    TestUser bob;
    std::optional<ScopedEnvironment> socket;
};

TEST_F(CallerRights, AUserCantCopyOntoWhatOnlyRootMayWrite) {
    RootServer server;
    useServer(server);
    const auto empty = server.folder("ann/empty", ann);
    const auto rootOnly = server.folder("rootonly", std::nullopt, 0700);
    std::ofstream(rootOnly / "precious.txt") << "root's";
    ::chmod((rootOnly / "precious.txt").c_str(), 0600);

    for (const fs::path& destination : {rootOnly, fs::path("/etc")}) {
        SCOPED_TRACE(destination.string());
        auto outcome = server.quillo(ann, {"copy", empty.string(), destination.string()});
        EXPECT_NE(outcome.status, 0);
        // The server's sentence, as it stands.
        EXPECT_EQ(outcome.err, "quillo: You can’t write to “" + destination.string() +
                                   "”, so Quillo won’t copy there for you. Ask an administrator to set up this "
                                   "copy.\n")
            << outcome.out;
    }
    EXPECT_EQ(readFile(rootOnly / "precious.txt"), "root's");
    EXPECT_EQ(ownershipOf(rootOnly).uid, 0u);
    EXPECT_EQ(ownershipOf(rootOnly).mode, 0700u);
    auto jobs = server.quillo(std::nullopt, {"jobs"});
    EXPECT_THAT(jobs.out, Not(HasSubstr("rootonly"))) << "a refused copy left a job behind";
}

TEST_F(CallerRights, AUsersOwnCopyRunsWithTheirRightsAndCopiesNothingTheyCantRead) {
    RootServer server;
    useServer(server);
    const auto source = server.folder("ann/source", ann);
    const auto destination = server.dir() / "ann" / "backup";
    ::chown((server.dir() / "ann").c_str(), ann.uid, ann.gid);
    // Enough data that the engine is still running when the test looks at it.
    for (int i = 0; i < 4; ++i) {
        const auto file = source / ("big" + std::to_string(i) + ".bin");
        std::ofstream(file) << std::string(96u << 20, static_cast<char>('a' + i));
        ::chown(file.c_str(), ann.uid, ann.gid);
    }
    std::ofstream(source / "root-only.txt") << "not for ann";
    ::chmod((source / "root-only.txt").c_str(), 0600);

    // Watch for the engine working on this destination and note whose rights it has.
    std::atomic<bool> done{false};
    std::optional<uid_t> engineUid;
    std::thread watcher([&] {
        while (!done && !engineUid) {
            for (const auto& entry : fs::directory_iterator("/proc")) {
                const auto cmdline = readFile(entry.path() / "cmdline");
                if (cmdline.find("qlcopy") == std::string::npos ||
                    cmdline.find(destination.string()) == std::string::npos) {
                    continue;
                }
                std::ifstream status(entry.path() / "status");
                std::string line;
                while (std::getline(status, line)) {
                    if (line.rfind("Uid:", 0) == 0) engineUid = static_cast<uid_t>(std::stoul(line.substr(4)));
                }
            }
        }
    });
    auto outcome = server.quillo(ann, {"copy", source.string(), destination.string()});
    done = true;
    watcher.join();

    ASSERT_TRUE(engineUid) << "the engine was never seen running\n" << outcome.out << outcome.err;
    EXPECT_EQ(*engineUid, ann.uid);
    EXPECT_FALSE(fs::exists(destination / "root-only.txt") && readFile(destination / "root-only.txt") == "not for ann");
    for (int i = 0; i < 4; ++i) {
        const auto copied = destination / ("big" + std::to_string(i) + ".bin");
        ASSERT_TRUE(fs::exists(copied)) << outcome.out << outcome.err;
        EXPECT_EQ(ownershipOf(copied).uid, ann.uid);
        EXPECT_EQ(fs::file_size(copied), 96u << 20);
    }
    EXPECT_EQ(ownershipOf(destination).uid, ann.uid) << "the destination folder wasn't made by Ann";
}

TEST_F(CallerRights, AnotherUserCantSeeOrTouchSomeonesJob) {
    RootServer server;
    useServer(server);
    const auto source = server.folder("ann/docs", ann);
    server.folder("ann", ann);
    std::ofstream(source / "a.txt") << "hello";
    auto made = server.quillo(ann, {"copy", source.string(), (server.dir() / "ann" / "docs-copy").string(),
                                    "--name", "Ann's documents"});
    ASSERT_EQ(made.status, 0) << made.out << made.err << server.log();

    EXPECT_THAT(server.quillo(ann, {"jobs"}).out, HasSubstr("Ann's documents"));
    EXPECT_THAT(server.quillo(std::nullopt, {"jobs"}).out, HasSubstr("Ann's documents"));
    EXPECT_THAT(server.quillo(bob, {"jobs"}).out, Not(HasSubstr("Ann's documents")));
    for (const char* verb : {"run", "remove", "cancel", "edit"}) {
        SCOPED_TRACE(verb);
        std::vector<std::string> arguments = {verb, "Ann's documents"};
        if (std::string(verb) == "edit") arguments.push_back("--as-admin");
        auto outcome = server.quillo(bob, arguments);
        EXPECT_NE(outcome.status, 0) << outcome.out << outcome.err;
    }
    EXPECT_THAT(server.quillo(ann, {"jobs"}).out, HasSubstr("Ann's documents")) << "Bob removed Ann's job";
}

TEST_F(CallerRights, AnAdministratorsApprovalLetsAUserCopyWhatOnlyRootMayRead) {
    if (auto why = PrivatePolkit::unavailableReason()) GTEST_SKIP() << *why;
    PrivatePolkit::Options options;
    options.actionFiles = {QL_COPY_AS_ADMINISTRATOR_POLICY_FILE};
    options.rules = "polkit.addRule(function(action, subject) {\n"
                    "  if (action.id.indexOf('.copy-as-administrator') < 0) return polkit.Result.NOT_HANDLED;\n"
                    "  if (subject.user == 'quillo-test-a') return polkit.Result.YES;\n"
                    "  return polkit.Result.NO;\n"
                    "});\n";
    PrivatePolkit polkit(options);
    ASSERT_TRUE(polkit.ok()) << polkit.error();
    RootServer server({"DBUS_SYSTEM_BUS_ADDRESS=" + polkit.busAddress()});
    useServer(server);

    const auto secrets = server.folder("secrets", std::nullopt, 0700);
    std::ofstream(secrets / "key.txt") << "root's key";
    ::chmod((secrets / "key.txt").c_str(), 0600);
    server.folder("ann", ann);
    server.folder("bob", bob);

    auto denied = server.quillo(bob, {"copy", secrets.string(), (server.dir() / "bob" / "copy").string(), "--as-admin"});
    EXPECT_NE(denied.status, 0);
    EXPECT_THAT(denied.err, ::testing::StartsWith("quillo: An administrator didn’t approve this copy, so Quillo "
                                                  "changed nothing."))
        << denied.out << denied.err << server.log() << polkit.polkitdLog();
    EXPECT_FALSE(fs::exists(server.dir() / "bob" / "copy"));

    auto approved =
        server.quillo(ann, {"copy", secrets.string(), (server.dir() / "ann" / "copy").string(), "--as-admin"});
    ASSERT_EQ(approved.status, 0) << approved.out << approved.err << server.log() << polkit.polkitdLog();
    EXPECT_EQ(readFile(server.dir() / "ann" / "copy" / "key.txt"), "root's key");

    // Without asking, the same copy is refused before anything exists.
    auto unasked = server.quillo(ann, {"copy", secrets.string(), (server.dir() / "ann" / "copy2").string()});
    EXPECT_NE(unasked.status, 0);
    EXPECT_THAT(unasked.err, HasSubstr("You can’t read “" + secrets.string() + "”"));
}

}  // namespace
}  // namespace ql::testing
