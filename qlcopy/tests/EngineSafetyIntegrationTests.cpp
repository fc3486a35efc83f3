// What must never go wrong: signals stop the engine in order, a killed run leaves nothing half
// written under a final name, unreadable source items are counted and everything else copied,
// and an unreadable source folder deletes nothing.

#include "support/EngineHarness.h"
#include "QLSupport/tests/MachineLimits.h"
#include "support/TreeFixture.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <thread>

namespace ql::test {
namespace {

constexpr uid_t nobody = 65534;

std::string randomBytes(std::size_t n, unsigned seed) {
    std::string s(n, '\0');
    std::uint32_t x = seed * 2654435761u + 1;
    for (auto& c : s) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        c = static_cast<char>(x);
    }
    return s;
}

// A source whose large file copies slowly (under --bwlimit), so a test can act mid-copy.
void buildSlowSource(const std::string& src, std::size_t bigBytes) {
    Tree::write(src + "/a-small.txt", "small\n");
    Tree::write(src + "/big.bin", randomBytes(bigBytes, 7));
    Tree::write(src + "/sub/c.txt", "c\n");
}

bool copyingBig(const Json& e) {
    return e.value("type", "") == "progress" && e.value("copy_in_flight", false) &&
           e.value("current_copy_path", "") == "/big.bin" && e.value("bytes_copied", 0) > 0;
}

TEST(EngineSignals, SigintGivesTerminatedThenAnInterruptedSummaryWithinEightSeconds) {
    TempDir tmp;
    buildSlowSource(tmp / "src", 8 << 20);
    std::chrono::steady_clock::time_point signalled{};
    EngineLaunch launch{{"--bwlimit", "1048576", tmp / "src", tmp / "dst"}};
    launch.onEvent = [&](const Json& e, pid_t pid) {
        if (signalled == std::chrono::steady_clock::time_point{} && copyingBig(e)) {
            signalled = std::chrono::steady_clock::now();
            ::kill(pid, SIGINT);
        }
    };
    auto run = runEngine(launch);
    ASSERT_NE(signalled, std::chrono::steady_clock::time_point{}) << run.describe();
    double afterSignal = std::chrono::duration<double>(std::chrono::steady_clock::now() - signalled).count();
    EXPECT_LT(afterSignal, 8.0);
    EXPECT_EQ(run.exitStatus, 130) << run.describe();

    auto types = run.types();
    ASSERT_GE(types.size(), 2u);
    EXPECT_EQ(types[types.size() - 2], "terminated");
    EXPECT_EQ(types.back(), "summary");
    auto terminated = *run.first("terminated");
    EXPECT_EQ(terminated["signal"], SIGINT);
    EXPECT_EQ(terminated.value("executor_path", ""), "/big.bin");
    EXPECT_TRUE(run.first("summary")->value("interrupted", false));
    EXPECT_FALSE(run.first("phase_completed"));

    EXPECT_FALSE(Tree::exists(tmp / "dst/big.bin")) << "a half-copied file never appears under its name";
    EXPECT_TRUE(Tree::temporaries(tmp / "dst").empty());
    EXPECT_EQ(Tree::read(tmp / "dst/a-small.txt"), "small\n");
}

TEST(EngineSignals, SigkillMidCopyThenARerunLeavesACorrectDestination) {
    TempDir tmp;
    buildSlowSource(tmp / "src", 8 << 20);
    Tree::write(tmp / "dst/big.bin", "the previous good copy");
    Tree::setMtime(tmp / "dst/big.bin", 1'600'000'000);
    bool killed = false;
    EngineLaunch launch{{"--bwlimit", "1048576", "--delete", tmp / "src", tmp / "dst"}};
    launch.onEvent = [&](const Json& e, pid_t pid) {
        if (!killed && copyingBig(e)) {
            killed = true;
            ::kill(pid, SIGKILL);
        }
    };
    auto run = runEngine(launch);
    ASSERT_TRUE(killed) << run.describe();
    EXPECT_EQ(run.signal, SIGKILL);
    EXPECT_EQ(Tree::read(tmp / "dst/big.bin"), "the previous good copy") << "the old copy stays until the new is whole";

    auto rerun = runEngine({{"--delete", tmp / "src", tmp / "dst"}});
    ASSERT_EQ(rerun.exitStatus, 0) << rerun.describe();
    EXPECT_TRUE(Tree::temporaries(tmp / "dst").empty());
    EXPECT_EQ(TreeDigest::differences(TreeDigest::of(tmp / "src"), TreeDigest::of(tmp / "dst")), "");
}

TEST(EngineSignals, StoppedTimeIsNeitherAStallNorInTheRate) {
    TempDir tmp;
    const std::int64_t limit = 2 << 20;
    buildSlowSource(tmp / "src", 24 << 20);
    enum class Step { copying, stopped, resumed, done } step = Step::copying;
    std::chrono::steady_clock::time_point resumedAt;
    std::vector<double> ratesAfterResume;
    EngineLaunch launch{{"--bwlimit", std::to_string(limit), "--stall-after", "1", tmp / "src", tmp / "dst"}};
    launch.onEvent = [&](const Json& e, pid_t pid) {
        if (step == Step::copying && copyingBig(e) && e.value("bytes_copied", 0) > limit * 2) {
            ::kill(pid, SIGSTOP);
            step = Step::stopped;
            std::this_thread::sleep_for(std::chrono::milliseconds(2500));
            ::kill(pid, SIGCONT);
            resumedAt = std::chrono::steady_clock::now();
            step = Step::resumed;
        } else if (step == Step::resumed && e.value("type", "") == "progress") {
            if (e.value("rate_window_valid", false)) ratesAfterResume.push_back(e["rate_window_bps"].get<double>());
            if (std::chrono::steady_clock::now() - resumedAt > std::chrono::seconds(2)) {
                step = Step::done;
                ::kill(pid, SIGINT);
            }
        }
    };
    auto run = runEngine(launch);
    ASSERT_EQ(step, Step::done) << run.describe();
    EXPECT_TRUE(run.ofType("stall").empty()) << run.describe();
    ASSERT_FALSE(ratesAfterResume.empty());
    // The 2.5 s stop would pull a 10 s window well below the limit if it counted.
    EXPECT_GT(ratesAfterResume.back(), 0.7 * static_cast<double>(limit));
}

// Runs the engine as an unprivileged user when the tests run as root (permission bits do not
// stop root), otherwise as the current user.
EngineLaunch unprivileged(std::vector<std::string> args, const std::string& tree) {
    EngineLaunch launch{std::move(args)};
    if (::geteuid() == 0) {
        Tree::chownTree(tree, nobody, nobody);
        launch.uid = nobody;
        launch.gid = nobody;
    }
    return launch;
}

TEST(EngineSafety, AnUnreadableSourceFileIsCountedAndEverythingElseCopied) {
    if (auto why = ql::testing::whyOtherUsersCantRun()) GTEST_SKIP() << *why;

    TempDir tmp;
    Tree::write(tmp / "src/a.txt", "a\n");
    Tree::write(tmp / "src/secret.txt", "secret\n");
    Tree::write(tmp / "src/z/z.txt", "z\n");
    auto launch = unprivileged({tmp / "src", tmp / "dst"}, tmp.path());
    ASSERT_EQ(::chmod((tmp / "src/secret.txt").c_str(), 0), 0);

    auto run = runEngine(launch);
    EXPECT_EQ(run.exitStatus, 1) << run.describe();
    EXPECT_EQ(run.summaryInt("errors"), 1);
    auto summary = *run.first("summary");
    EXPECT_EQ(summary.value("first_error_path", ""), tmp / "src/secret.txt");
    EXPECT_EQ(summary.value("first_error_side", ""), "src");
    EXPECT_EQ(summary.value("first_error_syscall", ""), "open");
    EXPECT_EQ(summary.value("first_error_errno", 0), EACCES);
    EXPECT_GT(summary.value("first_error_unix_nanos", std::int64_t{0}), 0);
    bool warned = false;
    for (const auto& w : run.ofType("warning")) {
        warned |= w.value("message", "") == "COPIED FAILED " + (tmp / "src/secret.txt") + ": Permission denied (EACCES)";
    }
    EXPECT_TRUE(warned) << run.describe();
    EXPECT_EQ(Tree::read(tmp / "dst/a.txt"), "a\n");
    EXPECT_EQ(Tree::read(tmp / "dst/z/z.txt"), "z\n");
    EXPECT_FALSE(Tree::exists(tmp / "dst/secret.txt"));
    EXPECT_TRUE(Tree::temporaries(tmp / "dst").empty());
}

TEST(EngineSafety, AnUnreadableSourceFolderDeletesNothingOfItsCopy) {
    if (auto why = ql::testing::whyOtherUsersCantRun()) GTEST_SKIP() << *why;

    TempDir tmp;
    Tree::write(tmp / "src/ok.txt", "ok\n");
    Tree::write(tmp / "src/locked/inner.txt", "inner\n");
    Tree::write(tmp / "dst/locked/inner.txt", "inner\n");
    Tree::write(tmp / "dst/locked/only-on-backup.txt", "keep me\n");
    Tree::write(tmp / "dst/extra.txt", "extra\n");
    auto launch = unprivileged({"--delete", tmp / "src", tmp / "dst"}, tmp.path());
    ASSERT_EQ(::chmod((tmp / "src/locked").c_str(), 0), 0);

    auto run = runEngine(launch);
    EXPECT_EQ(run.exitStatus, 1) << run.describe();
    EXPECT_TRUE(Tree::exists(tmp / "dst/locked/only-on-backup.txt"));
    EXPECT_TRUE(Tree::exists(tmp / "dst/locked/inner.txt"));
    EXPECT_FALSE(Tree::exists(tmp / "dst/extra.txt")) << "the readable root was listed completely";
    EXPECT_EQ(Tree::read(tmp / "dst/ok.txt"), "ok\n");
    bool said = false;
    for (const auto& w : run.ofType("warning")) said |= w.value("kind", "") == "folder_unreadable";
    EXPECT_TRUE(said) << run.describe();
    ::chmod((tmp / "src/locked").c_str(), 0755);
}

TEST(EngineSafety, AbortOnErrorCountEndsWithAFailure) {
    if (auto why = ql::testing::whyOtherUsersCantRun()) GTEST_SKIP() << *why;

    TempDir tmp;
    for (int i = 0; i < 4; ++i) Tree::write(tmp / ("src/f" + std::to_string(i)), "x\n");
    auto launch = unprivileged({"--abort-on-error-count", "2", "--workers", "1", tmp / "src", tmp / "dst"}, tmp.path());
    for (int i = 0; i < 4; ++i) ::chmod((tmp / ("src/f" + std::to_string(i))).c_str(), 0);
    auto run = runEngine(launch);
    EXPECT_EQ(run.exitStatus, 1) << run.describe();
    ASSERT_TRUE(run.first("failure")) << run.describe();
    EXPECT_FALSE(run.first("summary"));
    EXPECT_NE(run.first("failure")->value("message", "").find("hard-error count"), std::string::npos);
}

}  // namespace
}  // namespace ql::test
