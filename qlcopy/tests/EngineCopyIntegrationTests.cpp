// The engine run as a child process on real temporary trees: copy modes with and without
// deletion, no-change runs, dry runs and previews, the event stream's shape, usage errors.

#include "support/EngineHarness.h"
#include "support/TreeFixture.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <set>
#include <tuple>

namespace ql::test {
namespace {

constexpr std::int64_t oldTime = 1'600'000'000;
constexpr std::int64_t newTime = 1'700'000'000;

// A small tree with every common kind of item.
void buildSource(const std::string& src) {
    Tree::write(src + "/top.txt", "top level\n");
    Tree::write(src + "/docs/a.txt", "alpha\n");
    Tree::write(src + "/docs/b.txt", std::string(70000, 'b'));
    Tree::write(src + "/docs/deep/er/c.txt", "gamma\n", 0600);
    Tree::mkdirs(src + "/empty");
    ASSERT_EQ(::symlink("docs/a.txt", (src + "/link").c_str()), 0);
    ASSERT_EQ(::link((src + "/docs/a.txt").c_str(), (src + "/docs/a-hardlink.txt").c_str()), 0);
    Tree::setMtime(src + "/docs/b.txt", oldTime, 123456789);
}

std::vector<std::string> copyArgs(const std::string& src, const std::string& dst, std::vector<std::string> extra = {}) {
    extra.push_back(src);
    extra.push_back(dst);
    return extra;
}

TEST(EngineCopy, InitialCopyReproducesTheTreeAndReportsInOrder) {
    TempDir tmp;
    buildSource(tmp / "src");
    auto run = runEngine({copyArgs(tmp / "src", tmp / "dst")});
    ASSERT_EQ(run.exitStatus, 0) << run.describe();
    EXPECT_TRUE(run.badLines.empty());
    EXPECT_EQ(TreeDigest::differences(TreeDigest::of(tmp / "src"), TreeDigest::of(tmp / "dst")), "");

    auto types = run.types();
    ASSERT_GE(types.size(), 4u);
    EXPECT_EQ(types[0], "phase_started");
    EXPECT_EQ(types[1], "scan_mode");
    EXPECT_EQ(types[types.size() - 2], "phase_completed");
    EXPECT_EQ(types.back(), "summary");
    EXPECT_EQ(std::count(types.begin(), types.end(), "summary"), 1);
    EXPECT_EQ(run.first("scan_mode")->value("reason", ""), "first_run");

    auto summary = *run.first("summary");
    EXPECT_EQ(summary["errors"], 0);
    EXPECT_EQ(summary["items_deleted"], 0);
    // top, a, b, c, link, a-hardlink and the folders docs, deep, er, empty.
    EXPECT_EQ(summary["items_copied"], 10);
    EXPECT_EQ(summary["scout_total_files"], 6);
    EXPECT_FALSE(summary.contains("interrupted"));
    EXPECT_FALSE(summary.contains("first_error_path"));
    // At least the final progress event, with the fields the server normalises.
    auto progress = run.ofType("progress");
    ASSERT_FALSE(progress.empty());
    const auto& last = progress.back();
    for (const char* key : {"work_done_bytes", "scout_total_bytes", "scout_done", "files_completed", "bytes_copied",
                            "walk_done", "rate_effective_bps", "rate_window_valid", "delete_backpressure"}) {
        EXPECT_TRUE(last.contains(key)) << key;
    }
    EXPECT_EQ(last["work_done_bytes"], last["scout_total_bytes"]);
    EXPECT_TRUE(last["scout_done"].get<bool>());
    EXPECT_TRUE(last["walk_done"].get<bool>());
    EXPECT_NE(run.err.find("completed elapsednanos="), std::string::npos);
}

TEST(EngineCopy, SecondRunChangesNothing) {
    TempDir tmp;
    buildSource(tmp / "src");
    ASSERT_EQ(runEngine({copyArgs(tmp / "src", tmp / "dst", {"--delete"})}).exitStatus, 0);
    struct stat before;
    ASSERT_EQ(::stat((tmp / "dst/docs/b.txt").c_str(), &before), 0);
    auto digest = TreeDigest::of(tmp / "dst");

    auto run = runEngine({copyArgs(tmp / "src", tmp / "dst", {"--delete"})});
    ASSERT_EQ(run.exitStatus, 0) << run.describe();
    auto summary = *run.first("summary");
    EXPECT_EQ(summary["items_copied"], 0);
    EXPECT_EQ(summary["bytes_copied"], 0);
    EXPECT_EQ(summary["items_updated_meta_only"], 0);
    EXPECT_EQ(summary["items_deleted"], 0);
    EXPECT_EQ(summary["dirs_retime_restamped"], 0);
    EXPECT_EQ(TreeDigest::differences(digest, TreeDigest::of(tmp / "dst")), "");
    struct stat after;
    ASSERT_EQ(::stat((tmp / "dst/docs/b.txt").c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino) << "an up-to-date file must not be rewritten";
}

// Each mode against the same prepared destination.
struct ModeCase {
    const char* name;
    std::vector<std::string> flags;
    bool destNewerKept;   // a destination file newer than the source's survives
    bool extrasDeleted;   // destination items the source lacks are removed
};

class EngineModes : public ::testing::TestWithParam<ModeCase> {};

TEST_P(EngineModes, FollowTheModeAndDeleteFlag) {
    const ModeCase& c = GetParam();
    TempDir tmp;
    const std::string src = tmp / "src", dst = tmp / "dst";
    Tree::write(src + "/same.txt", "same\n", 0644);
    Tree::write(dst + "/same.txt", "same\n", 0600);
    Tree::setMtime(src + "/same.txt", oldTime);
    Tree::setMtime(dst + "/same.txt", oldTime);
    Tree::write(src + "/older.txt", "source version\n");
    Tree::write(dst + "/older.txt", "old\n");
    Tree::setMtime(src + "/older.txt", newTime);
    Tree::setMtime(dst + "/older.txt", oldTime);
    Tree::write(src + "/newer.txt", "source version\n");
    Tree::write(dst + "/newer.txt", "destination edit\n");
    Tree::setMtime(src + "/newer.txt", oldTime);
    Tree::setMtime(dst + "/newer.txt", newTime);
    Tree::write(src + "/new.txt", "new\n");
    Tree::write(dst + "/extra.txt", "extra\n");
    Tree::write(dst + "/extradir/inner/x.txt", "x\n");

    auto args = c.flags;
    args.push_back(src);
    args.push_back(dst);
    auto run = runEngine({args});
    ASSERT_EQ(run.exitStatus, 0) << run.describe();

    EXPECT_EQ(Tree::read(dst + "/older.txt"), "source version\n");
    EXPECT_EQ(Tree::read(dst + "/new.txt"), "new\n");
    EXPECT_EQ(Tree::read(dst + "/newer.txt"), c.destNewerKept ? "destination edit\n" : "source version\n");
    EXPECT_EQ(Tree::exists(dst + "/extra.txt"), !c.extrasDeleted);
    EXPECT_EQ(Tree::exists(dst + "/extradir"), !c.extrasDeleted);
    struct stat st;
    ASSERT_EQ(::stat((dst + "/same.txt").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u) << "a mode difference is fixed in place";

    auto summary = *run.first("summary");
    EXPECT_EQ(summary["items_updated_meta_only"], 1);
    EXPECT_EQ(summary["meta_reasons"]["mode"], 1);
    // extra.txt, extradir, inner, x.txt
    EXPECT_EQ(summary["items_deleted"], c.extrasDeleted ? 4 : 0);
}

INSTANTIATE_TEST_SUITE_P(
    Table, EngineModes,
    ::testing::Values(ModeCase{"different", {"--copy-mode", "different"}, false, false},
                      ModeCase{"differentDelete", {"--copy-mode", "different", "--delete"}, false, true},
                      ModeCase{"newer", {"--copy-mode", "newer"}, true, false},
                      ModeCase{"newerDelete", {"--copy-mode", "newer", "--delete"}, true, true},
                      ModeCase{"smart", {"--copy-mode", "smart"}, false, true}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(EngineCopy, DryRunLeavesTheDestinationByteIdenticalAndReportsItems) {
    TempDir tmp;
    const std::string src = tmp / "src", dst = tmp / "dst";
    buildSource(src);
    Tree::write(dst + "/docs/a.txt", "stale\n");
    Tree::write(dst + "/gone.txt", "only here\n");
    Tree::write(dst + "/gonedir/x.txt", "x\n");
    TreeDigest::Options all;
    all.holes = true;
    auto before = TreeDigest::of(dst, all);

    auto run = runEngine({copyArgs(src, dst, {"--dry-run", "--abort-on-error-count", "0", "--emit-items", "--delete",
                                              "--state", tmp / "state.json"})});
    ASSERT_EQ(run.exitStatus, 0) << run.describe();
    EXPECT_EQ(TreeDigest::differences(before, TreeDigest::of(dst, all)), "");
    EXPECT_FALSE(Tree::exists(tmp / "state.json")) << "a dry run writes no state";
    EXPECT_TRUE(run.first("summary")->value("dry_run", false));

    std::set<std::tuple<std::string, std::string, std::string>> items;
    for (const auto& e : run.ofType("item")) {
        items.emplace(e["side"].get<std::string>(), e["path"].get<std::string>(), e["action"].get<std::string>());
        EXPECT_EQ(e["path"].get<std::string>().front(), '/');
    }
    using T = std::tuple<std::string, std::string, std::string>;
    for (const T& expected : {T{"src", "/docs/a.txt", "update"}, T{"dst", "/docs/a.txt", "update"},
                              T{"src", "/top.txt", "add"}, T{"dst", "/top.txt", "add"},
                              T{"dst", "/gone.txt", "delete"}, T{"dst", "/gonedir", "delete"},
                              T{"dst", "/gonedir/x.txt", "delete"}, T{"src", "/docs/deep/er", "add"},
                              T{"src", "/docs/deep/er/c.txt", "add"}, T{"src", "/docs", "keep"}}) {
        EXPECT_TRUE(items.count(expected)) << std::get<0>(expected) << " " << std::get<1>(expected) << " "
                                           << std::get<2>(expected);
    }
    EXPECT_EQ(run.first("summary")->value("items_deleted", -1), 3);
}

TEST(EngineCopy, DryRunIntoAMissingDestinationCreatesNothing) {
    TempDir tmp;
    buildSource(tmp / "src");
    auto run = runEngine({copyArgs(tmp / "src", tmp / "dst", {"--dry-run", "--emit-items"})});
    ASSERT_EQ(run.exitStatus, 0) << run.describe();
    EXPECT_FALSE(Tree::exists(tmp / "dst"));
    std::size_t adds = 0;
    for (const auto& e : run.ofType("item")) adds += e["side"] == "dst" && e["action"] == "add";
    EXPECT_EQ(adds, 10u);
}

TEST(EngineCopy, AFolderReplacedByAFileNeedsDeletion) {
    TempDir tmp;
    const std::string src = tmp / "src", dst = tmp / "dst";
    Tree::write(src + "/thing", "now a file\n");
    Tree::write(dst + "/thing/inside.txt", "was a folder\n");

    auto keep = runEngine({copyArgs(src, dst)});
    EXPECT_EQ(keep.exitStatus, 1) << keep.describe();
    EXPECT_TRUE(Tree::exists(dst + "/thing/inside.txt")) << "copy-different never deletes";
    EXPECT_EQ(keep.summaryInt("errors"), 1);
    EXPECT_EQ(keep.first("summary")->value("first_error_side", ""), "dst");

    auto replace = runEngine({copyArgs(src, dst, {"--delete"})});
    EXPECT_EQ(replace.exitStatus, 0) << replace.describe();
    EXPECT_EQ(Tree::read(dst + "/thing"), "now a file\n");
}

TEST(EngineCopy, LeftoverTemporaryFilesAreRemoved) {
    TempDir tmp;
    Tree::write(tmp / "src/a.txt", "a\n");
    Tree::write(tmp / "dst/.qlcopy-partial-1234-0", "half a file");
    Tree::write(tmp / "dst/sub/.qlcopy-partial-1234-1", "half a file");
    Tree::mkdirs(tmp / "src/sub");
    auto run = runEngine({copyArgs(tmp / "src", tmp / "dst")});
    ASSERT_EQ(run.exitStatus, 0) << run.describe();
    EXPECT_TRUE(Tree::temporaries(tmp / "dst").empty());
}

TEST(EngineCopy, OverlappingRootsAreRefused) {
    TempDir tmp;
    Tree::write(tmp / "src/a.txt", "a\n");
    for (auto [from, to] : {std::pair{tmp / "src", tmp / "src/inner"}, std::pair{tmp / "src", tmp.path()},
                            std::pair{tmp / "src", tmp / "src"}}) {
        auto run = runEngine({copyArgs(from, to, {"--delete"})});
        EXPECT_EQ(run.exitStatus, 1) << run.describe();
        ASSERT_TRUE(run.first("failure")) << run.describe();
        EXPECT_NE(run.first("failure")->value("message", "").find("overlap"), std::string::npos);
    }
    EXPECT_EQ(Tree::read(tmp / "src/a.txt"), "a\n");
}

TEST(EngineCopy, MissingSourceIsAFailure) {
    TempDir tmp;
    auto run = runEngine({copyArgs(tmp / "nothing-here", tmp / "dst")});
    EXPECT_EQ(run.exitStatus, 1);
    ASSERT_TRUE(run.first("failure"));
    EXPECT_EQ(run.first("failure")->value("errno_value", 0), ENOENT);
    EXPECT_EQ(run.types(), std::vector<std::string>{"failure"});
}

TEST(EngineCopy, StateFileDecidesTheScanModeReason) {
    TempDir tmp;
    Tree::write(tmp / "src/a.txt", "a\n");
    const std::string state = tmp / "state.json";
    auto first = runEngine({copyArgs(tmp / "src", tmp / "dst", {"--state", state})});
    ASSERT_EQ(first.exitStatus, 0) << first.describe();
    EXPECT_EQ(first.first("scan_mode")->value("reason", ""), "first_run");
    ASSERT_TRUE(Tree::exists(state));
    auto stateJson = parseJson(Tree::read(state));
    ASSERT_TRUE(stateJson);
    EXPECT_EQ((*stateJson)["format_version"], 1);
    EXPECT_TRUE(stateJson->contains("rules_hash"));

    auto second = runEngine({copyArgs(tmp / "src", tmp / "dst", {"--state", state})});
    EXPECT_EQ(second.first("scan_mode")->value("reason", ""), "history_expired");

    Tree::write(state, "{ not json");
    auto third = runEngine({copyArgs(tmp / "src", tmp / "dst", {"--state", state})});
    EXPECT_EQ(third.first("scan_mode")->value("reason", ""), "first_run");
}

TEST(EngineCopy, SnapshotIsReadInsteadOfTheLiveSource) {
    TempDir tmp;
    const std::string live = tmp / "volume/data";
    Tree::write(live + "/file.txt", "live\n");
    // The volume holding `live` is mounted at "/" here, so the snapshot mirrors the full path.
    char real[PATH_MAX];
    ASSERT_TRUE(::realpath(live.c_str(), real));
    const std::string snap = tmp / "snap";
    Tree::write(snap + real + "/file.txt", "snapshot\n");
    auto run = runEngine({copyArgs(live, tmp / "dst", {"--snapshot", snap, "--snap-event-anchor", "42"})});
    ASSERT_EQ(run.exitStatus, 0) << run.describe();
    EXPECT_EQ(Tree::read(tmp / "dst/file.txt"), "snapshot\n");
    EXPECT_NE(run.err.find("src is a snapshot"), std::string::npos);
}

TEST(EngineCommandLine, UsageErrorsExitTwo) {
    TempDir tmp;
    Tree::mkdirs(tmp / "src");
    struct Case {
        std::vector<std::string> args;
        bool addFd;
    };
    for (const Case& c : {Case{{"--no-such-flag", tmp / "src", tmp / "dst"}, true},
                          Case{{tmp / "src", tmp / "dst"}, false},
                          Case{{"--progress-fd", "9", tmp / "src", tmp / "dst"}, false},
                          Case{{"--copy-mode", "sideways", tmp / "src", tmp / "dst"}, true},
                          Case{{"--map-noowners-owner", "99", tmp / "src", tmp / "dst"}, true},
                          Case{{tmp / "src"}, true}}) {
        EngineLaunch launch{c.args};
        launch.addProgressFd = c.addFd;
        auto run = runEngine(launch);
        EXPECT_EQ(run.exitStatus, 2) << c.args[0] << "\n" << run.err;
        EXPECT_NE(run.err.find("Usage"), std::string::npos) << run.err;
        EXPECT_TRUE(run.events.empty());
    }
    EXPECT_FALSE(Tree::exists(tmp / "dst"));
}

TEST(EngineCommandLine, VersionPrintsAndExitsZero) {
    EngineLaunch launch{{"--version"}};
    launch.addProgressFd = false;
    auto run = runEngine(launch);
    EXPECT_EQ(run.exitStatus, 0);
    EXPECT_EQ(run.out.rfind("qlcopy ", 0), 0u) << run.out;
}

}  // namespace
}  // namespace ql::test
