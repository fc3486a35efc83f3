// `quillo` end to end: the real client executable against a real copy server and copy engine,
// over generated folder trees.
#include "app/core/ServerLauncher.h"
#include "QLSupport/tests/MachineLimits.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <thread>

extern char** environ;

namespace ql {
namespace {

namespace fs = std::filesystem;

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

struct Outcome {
    int status = -1;
    std::string out;
    std::string err;
};

// Runs a program with extra environment variables, its output captured in files.
Outcome runProgram(const std::string& program, const std::vector<std::string>& args,
                   const std::map<std::string, std::string>& environment, const fs::path& scratch) {
    std::vector<std::string> envStorage;
    for (char** e = environ; *e; ++e) {
        std::string entry(*e);
        auto eq = entry.find('=');
        if (eq != std::string::npos && environment.count(entry.substr(0, eq))) continue;
        envStorage.push_back(entry);
    }
    for (const auto& [k, v] : environment) envStorage.push_back(k + "=" + v);
    std::vector<char*> envp;
    for (auto& e : envStorage) envp.push_back(e.data());
    envp.push_back(nullptr);
    std::vector<std::string> argStorage{program};
    argStorage.insert(argStorage.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& a : argStorage) argv.push_back(a.data());
    argv.push_back(nullptr);

    const auto outPath = (scratch / "stdout").string();
    const auto errPath = (scratch / "stderr").string();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t pid = 0;
    Outcome outcome;
    if (::posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), envp.data()) == 0) {
        int status = 0;
        ::waitpid(pid, &status, 0);
        outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    posix_spawn_file_actions_destroy(&actions);
    outcome.out = readFile(outPath);
    outcome.err = readFile(errPath);
    return outcome;
}

// One entry of a tree as a copy must reproduce it.
std::string describeTree(const fs::path& root) {
    std::map<std::string, std::string> entries;
    for (auto it = fs::recursive_directory_iterator(root); it != fs::recursive_directory_iterator(); ++it) {
        struct stat st {};
        ::lstat(it->path().c_str(), &st);
        std::ostringstream line;
        line << std::oct << (st.st_mode & 07777) << std::dec;
        if (S_ISLNK(st.st_mode)) {
            line << " link→" << fs::read_symlink(it->path()).string();
        } else {
            if (S_ISREG(st.st_mode)) {
                const auto content = readFile(it->path());
                line << " file " << st.st_size << " bytes hash " << std::hash<std::string>{}(content);
            } else if (S_ISDIR(st.st_mode)) {
                line << " dir";
            }
            line << " mtime " << st.st_mtim.tv_sec << "." << st.st_mtim.tv_nsec;
        }
        entries[fs::relative(it->path(), root).string()] = line.str();
    }
    // The top folder's own mode and time.
    struct stat top {};
    ::stat(root.c_str(), &top);
    std::ostringstream out;
    out << ". " << std::oct << (top.st_mode & 07777) << std::dec << " mtime " << top.st_mtim.tv_sec << "."
        << top.st_mtim.tv_nsec << "\n";
    for (const auto& [path, line] : entries) out << path << " " << line << "\n";
    return out.str();
}

void setTimes(const fs::path& path, std::int64_t seconds, long nanos) {
    struct timespec times[2] = {{seconds, nanos}, {seconds, nanos}};
    ::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW);
}

void writeFile(const fs::path& path, std::size_t size, unsigned seed, mode_t mode, std::int64_t mtime) {
    std::mt19937 random(seed);
    std::string content(size, '\0');
    for (auto& c : content) c = static_cast<char>(random());
    std::ofstream(path, std::ios::binary) << content;
    ::chmod(path.c_str(), mode);
    setTimes(path, mtime, 123456789);
}

class QuilloCopy : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/qlcli-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        root_ = pattern;
        auto server = ServerLauncher::findServer(QL_QUILLO, "");
        if (!server) GTEST_SKIP() << "qlcopyserver is not built next to quillo";
        serverPath_ = *server;
        state_ = root_ / "state";
        socket_ = (state_ / "qlcopyserver.sock").string();
        fs::create_directories(state_);
    }

    void TearDown() override {
        if (serverPid_ > 0) {
            ::kill(serverPid_, SIGTERM);
            int status = 0;
            for (int i = 0; i < 100; ++i) {
                if (::waitpid(serverPid_, &status, WNOHANG) == serverPid_) {
                    serverPid_ = 0;
                    break;
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
            }
            if (serverPid_ > 0) {
                ::kill(serverPid_, SIGKILL);
                ::waitpid(serverPid_, &status, 0);
            }
        }
        if (!root_.empty()) fs::remove_all(root_);
    }

    // A copy server of its own, in the test's folder.
    void startServer() {
        ServerLauncher::Plan plan;
        plan.executable = serverPath_;
        plan.arguments = {"--state-root", state_.string(), "--socket", socket_, "--attestation", "logOnly"};
        plan.logPath = (root_ / "server.log").string();
        auto started = ServerLauncher::start(plan);
        ASSERT_TRUE(started) << started.error();
        serverPid_ = *started;
        for (int i = 0; i < 150; ++i) {
            if (quillo({"status"}).status == 0) return;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        FAIL() << "the copy server did not answer; its log:\n" << readFile(root_ / "server.log");
    }

    Outcome quillo(const std::vector<std::string>& args) {
        auto scratch = root_ / "scratch";
        fs::create_directories(scratch);
        return runProgram(QL_QUILLO, args, {{"QLCOPYSERVER_SOCK", socket_}}, scratch);
    }

    // Folders, files of several sizes and modes, an empty file, a link, fixed times.
    void makeTree(const fs::path& top) {
        fs::create_directories(top / "Letters" / "2023");
        fs::create_directories(top / "Photos");
        fs::create_directories(top / "Empty");
        writeFile(top / "notes.txt", 1200, 1, 0644, 1'600'000'000);
        writeFile(top / "secret.txt", 300, 2, 0600, 1'600'000'100);
        writeFile(top / "tool.sh", 90, 3, 0755, 1'600'000'200);
        writeFile(top / "empty", 0, 4, 0644, 1'600'000'300);
        writeFile(top / "Letters" / "2023" / "march.doc", 48'000, 5, 0640, 1'600'000'400);
        writeFile(top / "Photos" / "big.raw", 3'000'000, 6, 0644, 1'600'000'500);
        fs::create_symlink("notes.txt", top / "link-to-notes");
        setTimes(top / "link-to-notes", 1'600'000'600, 0);
        for (const auto& dir : {top / "Letters" / "2023", top / "Letters", top / "Photos", top / "Empty", top}) {
            setTimes(dir, 1'500'000'000, 5);
        }
        ::chmod((top / "Photos").c_str(), 0750);
    }

    fs::path root_, state_;
    std::string socket_;
    std::string serverPath_;
    pid_t serverPid_ = 0;
};

TEST_F(QuilloCopy, CopiesATreeThenNothingThenExactlyTheChangedFile) {
    if (auto why = ql::testing::whyNoVolumeHoldsRoot()) GTEST_SKIP() << *why;

    startServer();
    const auto source = root_ / "Documents";
    const auto destination = root_ / "backup";
    makeTree(source);

    auto first = quillo({"copy", source.string(), destination.string()});
    ASSERT_EQ(first.status, 0) << first.out << first.err << readFile(root_ / "server.log");
    EXPECT_NE(first.out.find("Created the job “Documents → backup”."), std::string::npos) << first.out;
    EXPECT_NE(first.out.find("Copy complete."), std::string::npos) << first.out;
    EXPECT_NE(first.out.find("Copied "), std::string::npos) << first.out;
    EXPECT_EQ(describeTree(destination), describeTree(source));

    auto second = quillo({"copy", source.string(), destination.string()});
    ASSERT_EQ(second.status, 0) << second.out << second.err;
    EXPECT_NE(second.out.find("Using the job “Documents → backup”."), std::string::npos) << second.out;
    EXPECT_NE(second.out.find("Copied 0 items (0 bytes)"), std::string::npos) << second.out;
    EXPECT_EQ(describeTree(destination), describeTree(source));

    writeFile(source / "Letters" / "2023" / "march.doc", 48'000, 99, 0640, 1'700'000'000);
    setTimes(source / "Letters" / "2023", 1'500'000'000, 5);
    auto third = quillo({"copy", source.string(), destination.string()});
    ASSERT_EQ(third.status, 0) << third.out << third.err;
    EXPECT_NE(third.out.find("Copied 1 item (48.0 KB)"), std::string::npos) << third.out;
    EXPECT_EQ(describeTree(destination), describeTree(source));

    auto jobs = quillo({"jobs"});
    ASSERT_EQ(jobs.status, 0) << jobs.err;
    EXPECT_NE(jobs.out.find("Documents → backup"), std::string::npos) << jobs.out;
    EXPECT_NE(jobs.out.find("Copy mode:    Smart Update"), std::string::npos) << jobs.out;
    EXPECT_NE(jobs.out.find("Schedule:     when you click Copy Now, not on a schedule"), std::string::npos) << jobs.out;
    EXPECT_NE(jobs.out.find("succeeded — 1 item copied"), std::string::npos) << jobs.out;

    auto run = quillo({"run", "Documents → backup"});
    EXPECT_EQ(run.status, 0) << run.out << run.err;
    EXPECT_NE(run.out.find("Copied 0 items"), std::string::npos) << run.out;

    auto removed = quillo({"remove", "Documents → backup"});
    EXPECT_EQ(removed.status, 0) << removed.err;
    EXPECT_NE(quillo({"jobs"}).out.find("No copy jobs yet."), std::string::npos);
}

TEST_F(QuilloCopy, ABadRequestIsASentenceAndAFailingStatus) {
    const auto source = root_ / "Documents";
    makeTree(source);
    struct Case {
        std::vector<std::string> args;
        const char* sentence;
    };
    const Case cases[] = {
        {{"copy", (root_ / "nowhere").string(), (root_ / "b").string()}, "There is no folder at"},
        {{"copy", source.string(), (source / "Inside").string()}, "is inside the source"},
        {{"copy", source.string(), source.string()}, "are the same folder"},
        {{"copy", (source / "notes.txt").string(), (root_ / "b").string()}, "is a file, not a folder"},
        {{"copy", source.string(), (root_ / "no" / "such" / "place").string()}, "does not exist, and neither does"},
    };
    for (const auto& c : cases) {
        auto outcome = quillo(c.args);
        EXPECT_EQ(outcome.status, 1) << c.args[1];
        EXPECT_NE(outcome.err.find(c.sentence), std::string::npos) << outcome.err;
    }
    EXPECT_FALSE(fs::exists(source / "Inside"));

    // Without a server, control commands say so and fail.
    auto cancel = quillo({"cancel", "Documents"});
    EXPECT_EQ(cancel.status, 3);
    EXPECT_NE(cancel.err.find("No copy server answers at " + socket_), std::string::npos) << cancel.err;

    startServer();
    auto missing = quillo({"run", "No Such Job"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_NE(missing.err.find("There is no job named “No Such Job”"), std::string::npos) << missing.err;
    auto status = quillo({"status"});
    EXPECT_EQ(status.status, 0);
    EXPECT_NE(status.out.find("Server:       reachable"), std::string::npos) << status.out;
    EXPECT_NE(status.out.find("Active runs:  none"), std::string::npos) << status.out;
}

}  // namespace
}  // namespace ql
