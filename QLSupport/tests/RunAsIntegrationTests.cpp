#include "QLSupport/Log.h"
#include "QLSupport/tests/MachineLimits.h"
#include "QLSupport/OwnerAccess.h"
#include "QLSupport/PosixSpawnedProcess.h"
#include "QLSupport/UserCredentials.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>

namespace fs = std::filesystem;
using ql::AccessFinding;
using ql::LiveOwnerAccessProbe;
using ql::PosixSpawnedProcess;
using ql::UserCredentials;

namespace {

#define REQUIRE_ROOT()                                                                                 \
    if (::geteuid() != 0) GTEST_SKIP() << "needs root: the test drops to another user's credentials"

// An unprivileged user to drop to: nobody, or a system user made for these tests (and left).
UserCredentials unprivilegedUser() {
    if (auto nobody = UserCredentials::forUser(65534)) return *nobody;
    if (!::getpwnam("quillo-test-a")) {
        [[maybe_unused]] int rc = std::system("useradd --system --no-create-home quillo-test-a");
    }
    const passwd* entry = ::getpwnam("quillo-test-a");
    if (!entry) return {};
    auto user = UserCredentials::forUser(entry->pw_uid);
    return user ? *user : UserCredentials{};
}

std::string readAll(const PosixSpawnedProcess::Descriptor& fd) {
    std::string text;
    char buffer[4096];
    for (;;) {
        ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
        if (n > 0) {
            text.append(buffer, static_cast<std::size_t>(n));
        } else if (n == 0 || errno != EINTR) {
            return text;
        }
    }
}

std::set<long> numbers(const std::string& line) {
    std::set<long> set;
    std::istringstream in(line);
    for (long n; in >> n;) set.insert(n);
    return set;
}

// A root-owned temporary tree, 0755 so that other users can reach what it lets them:
//   private/        0700 root    private/secret  0600 root
//   public.txt      0644 root    rootdir/        0755 root
//   userdir/        0755 the unprivileged user
struct Tree {
    fs::path root;
    explicit Tree(const UserCredentials& user) {
        char name[] = "/tmp/ql-runas-XXXXXX";
        root = ::mkdtemp(name);
        fs::permissions(root, fs::perms(0755));
        fs::create_directory(root / "private");
        fs::permissions(root / "private", fs::perms(0700));
        std::ofstream(root / "private/secret") << "secret";
        fs::permissions(root / "private/secret", fs::perms(0600));
        std::ofstream(root / "public.txt") << "public";
        fs::permissions(root / "public.txt", fs::perms(0644));
        fs::create_directory(root / "rootdir");
        fs::permissions(root / "rootdir", fs::perms(0755));
        fs::create_directory(root / "userdir");
        fs::permissions(root / "userdir", fs::perms(0755));
        [[maybe_unused]] int rc = ::chown((root / "userdir").c_str(), user.uid, user.gid);
    }
    ~Tree() {
        std::error_code ec;
        fs::remove_all(root, ec);
    }
    std::string operator/(const char* relative) const { return (root / relative).string(); }
};

TEST(UserCredentialsTest, LooksUpUsersAndNamesTheMissingOne) {
    auto root = UserCredentials::forUser(0);
    ASSERT_TRUE(root) << root.error();
    EXPECT_EQ(root->name, "root");
    EXPECT_EQ(root->gid, 0u);
    EXPECT_NE(std::find(root->groups.begin(), root->groups.end(), 0u), root->groups.end())
        << "the primary group belongs in the group list, as initgroups puts it there";

    uid_t unknown = 4242;
    while (::getpwuid(unknown)) ++unknown;
    auto missing = UserCredentials::forUser(unknown);
    ASSERT_FALSE(missing);
    EXPECT_EQ(missing.error(), "There is no user with id " + std::to_string(unknown) + " on this computer.");
}

TEST(RunAsTest, ChildRunsWithTheUsersIdsAndGroupsAndNothingOfOurs) {
    if (auto why = ql::testing::whyOtherUsersCantRun()) GTEST_SKIP() << *why;

    REQUIRE_ROOT();
    const UserCredentials looked = unprivilegedUser();
    ASSERT_NE(looked.uid, 0u) << "no unprivileged user to run as";
    const UserCredentials withExtraGroup = UserCredentials::forIds(looked.uid, looked.gid, {looked.gid, 100});

    // What a server does to itself that its children must not inherit: an ignored SIGPIPE, a
    // blocked SIGUSR1 and a descriptor without close-on-exec.
    struct sigaction ignore {}, oldPipe{};
    ignore.sa_handler = SIG_IGN;
    ::sigaction(SIGPIPE, &ignore, &oldPipe);
    sigset_t usr1, oldMask;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    ::pthread_sigmask(SIG_BLOCK, &usr1, &oldMask);
    int leaky = ::open("/dev/null", O_RDONLY);
    ASSERT_EQ(::dup2(leaky, 50), 50);

    for (const UserCredentials& user : {looked, withExtraGroup}) {
        SCOPED_TRACE(::testing::Message() << "groups of " << user.groups.size());
        PosixSpawnedProcess::Options options;
        options.runAs = user;
        options.environment = std::vector<std::string>{"PATH=/usr/bin:/bin"};
        options.ownProcessGroup = true;
        options.standardInputPipe = true;
        auto process = PosixSpawnedProcess::spawn(
            "/bin/sh", {"-c",
                        "id -u; id -g; id -G; "
                        "test -e /proc/$$/fd/50 && echo fd50 leaked || echo fd50 closed; "
                        "cut -d' ' -f5 /proc/$$/stat; read line; echo \"$line\"; echo event >&3"},
            options);
        ASSERT_TRUE(process) << process.error().message();
        ASSERT_EQ(::write(process->stdinHandle.get(), "typed\n", 6), 6);
        process->stdinHandle.reset();

        std::istringstream out(readAll(process->stdoutHandle));
        std::string uid, gid, groups, fd50, pgid, typed;
        for (auto* line : {&uid, &gid, &groups, &fd50, &pgid, &typed}) {
            std::getline(out, *line);
        }
        EXPECT_EQ(uid, std::to_string(user.uid));
        EXPECT_EQ(gid, std::to_string(user.gid));
        std::set<long> expectedGroups(user.groups.begin(), user.groups.end());
        expectedGroups.insert(user.gid);
        EXPECT_EQ(numbers(groups), expectedGroups);
        EXPECT_EQ(fd50, "fd50 closed");
        EXPECT_EQ(pgid, std::to_string(process->pid));
        EXPECT_EQ(typed, "typed");
        EXPECT_EQ(readAll(process->ndjsonHandle), "event\n");
        EXPECT_EQ(readAll(process->stderrHandle), "");
        EXPECT_EQ(process->wait(), (PosixSpawnedProcess::ExitStatus{0, false, 0}));

        // Read by grep itself: a shell may reset its signal mask when it starts.
        auto grep = PosixSpawnedProcess::spawn("/bin/grep", {"-E", "^(NoNewPrivs|SigBlk|SigIgn):", "/proc/self/status"},
                                               options);
        ASSERT_TRUE(grep) << grep.error().message();
        std::map<std::string, std::string> status;
        std::istringstream lines(readAll(grep->stdoutHandle));
        for (std::string key, value; std::getline(lines, key, ':') && std::getline(lines, value);) {
            status[key] = value.substr(value.find_first_not_of(" \t"));
        }
        EXPECT_EQ(status["NoNewPrivs"], "1");
        EXPECT_EQ(status["SigBlk"], "0000000000000000");
        EXPECT_EQ(std::stoull("0" + status["SigIgn"], nullptr, 16) & (1ull << (SIGPIPE - 1)), 0u) << status["SigIgn"];
        EXPECT_EQ(grep->wait(), (PosixSpawnedProcess::ExitStatus{0, false, 0}));
    }

    ::close(50);
    ::close(leaky);
    ::pthread_sigmask(SIG_SETMASK, &oldMask, nullptr);
    ::sigaction(SIGPIPE, &oldPipe, nullptr);
}

TEST(RunAsTest, FailuresBeforeExecAreSentencesNamingTheStep) {
    if (auto why = ql::testing::whyOtherUsersCantRun()) GTEST_SKIP() << *why;

    REQUIRE_ROOT();
    const UserCredentials user = unprivilegedUser();
    ASSERT_NE(user.uid, 0u) << "no unprivileged user to run as";
    Tree tree(user);
    const std::string tool = tree / "private/tool";
    fs::copy_file("/bin/true", tool);
    fs::permissions(tool, fs::perms(0755));

    struct Case {
        const char* name;
        std::string executable;
        std::optional<fs::path> workingDirectory;
        std::string expected;
    };
    const std::string as = " as user " + std::to_string(user.uid) + ": ";
    const Case cases[] = {
        {"a program in a folder only root may enter", tool, std::nullopt,
         "Could not start " + tool + as + "execve failed: Permission denied (errno=13)."},
        {"a working directory only root may enter", "/bin/true", fs::path(tree / "private"),
         "Could not start /bin/true" + as + "chdir failed: Permission denied (errno=13)."},
        {"a program that does not exist", tree / "userdir/none", std::nullopt,
         "Could not start " + (tree / "userdir/none") + as + "execve failed: No such file or directory (errno=2)."},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        PosixSpawnedProcess::Options options;
        options.runAs = user;
        options.workingDirectory = c.workingDirectory;
        auto process = PosixSpawnedProcess::spawn(c.executable, {}, options);
        ASSERT_FALSE(process);
        EXPECT_EQ(process.error().kind, PosixSpawnedProcess::SpawnError::Kind::startAsUserFailed);
        EXPECT_EQ(process.error().message(), c.expected);
    }

    // The same program is fine for root, so it was the user's rights that refused it.
    PosixSpawnedProcess::Options asRoot;
    asRoot.runAs = UserCredentials::forIds(0, 0, {0});
    auto process = PosixSpawnedProcess::spawn(tool, {}, asRoot);
    ASSERT_TRUE(process) << process.error().message();
    EXPECT_EQ(process->wait(), (PosixSpawnedProcess::ExitStatus{0, false, 0}));
}

TEST(OwnerAccessTest, ChecksAnswerForTheUserNotForRoot) {
    if (auto why = ql::testing::whyOtherUsersCantRun()) GTEST_SKIP() << *why;

    REQUIRE_ROOT();
    const UserCredentials user = unprivilegedUser();
    ASSERT_NE(user.uid, 0u) << "no unprivileged user to check as";
    const UserCredentials root = UserCredentials::forIds(0, 0, {0});
    Tree tree(user);
    LiveOwnerAccessProbe probe;

    enum Operation { read, write };
    struct Case {
        const UserCredentials* who;
        Operation operation;
        std::string path;
        AccessFinding expected;
    };
    const Case cases[] = {
        {&user, read, tree / "private/secret", {false, tree / "private/secret", EACCES}},
        {&root, read, tree / "private/secret", {true, tree / "private/secret", 0}},
        {&user, read, tree / "private", {false, tree / "private", EACCES}},
        {&user, read, tree / "public.txt", {true, tree / "public.txt", 0}},
        {&user, read, tree / "missing", {false, tree / "missing", ENOENT}},
        {&user, write, tree / "userdir", {true, tree / "userdir", 0}},
        {&user, write, tree / "userdir/new", {true, tree / "userdir", 0}},
        {&user, write, tree / "userdir/a/b/c/", {true, tree / "userdir", 0}},
        {&user, write, tree / "rootdir/a/b", {false, tree / "rootdir", EACCES}},
        {&user, write, tree / "private/new", {false, tree / "private/new", EACCES}},
        {&user, write, tree / "public.txt", {false, tree / "public.txt", EACCES}},
        {&user, write, "/etc", {false, "/etc", EACCES}},
        {&root, write, tree / "rootdir/new", {true, tree / "rootdir", 0}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << (c.operation == read ? "read " : "write ") << c.path << " as "
                                          << c.who->label());
        ql::LogCapture log;
        auto found = c.operation == read ? probe.canRead(*c.who, c.path) : probe.canWrite(*c.who, c.path);
        ASSERT_TRUE(found) << found.error();
        EXPECT_EQ(found->allowed, c.expected.allowed);
        EXPECT_EQ(found->checkedPath, c.expected.checkedPath);
        EXPECT_EQ(found->error, c.expected.error) << std::strerror(found->error);
        EXPECT_EQ(log.lines().size(), 1u) << "one line per decision";
    }
}

TEST(OwnerAccessTest, MakesFoldersOwnedByTheUserWhereTheUserMay) {
    if (auto why = ql::testing::whyOtherUsersCantRun()) GTEST_SKIP() << *why;

    REQUIRE_ROOT();
    const UserCredentials user = unprivilegedUser();
    ASSERT_NE(user.uid, 0u) << "no unprivileged user to act as";
    Tree tree(user);
    LiveOwnerAccessProbe probe;

    struct Case {
        std::string path;
        int error;  // 0: made
    };
    const Case cases[] = {
        {tree / "userdir/made/deeper", 0},  {tree / "userdir", 0},
        {tree / "rootdir/made", EACCES},     {tree / "private/made/deeper", EACCES},
        {tree / "public.txt", EEXIST},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        auto made = probe.makeDirectories(user, c.path, 0755);
        if (c.error != 0) {
            ASSERT_FALSE(made);
            EXPECT_EQ(made.error(), c.error) << std::strerror(made.error());
            continue;
        }
        ASSERT_TRUE(made) << std::strerror(made.error());
        for (fs::path p = c.path; p != tree.root; p = p.parent_path()) {
            struct stat st {};
            ASSERT_EQ(::stat(p.c_str(), &st), 0) << p;
            EXPECT_TRUE(S_ISDIR(st.st_mode)) << p;
            EXPECT_EQ(st.st_uid, user.uid) << p;
        }
    }
    EXPECT_FALSE(fs::exists(tree / "rootdir/made"));
}

}  // namespace
