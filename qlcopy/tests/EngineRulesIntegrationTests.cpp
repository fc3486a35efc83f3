// Copy rules applied by the engine: selection, preserve directives and flags, optional and
// retain-on-error items, rule validation, and the scan-mode reason when the rules change.

#include "support/EngineHarness.h"
#include "QLSupport/tests/MachineLimits.h"
#include "support/TreeFixture.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <set>

namespace ql::test {
namespace {

constexpr uid_t nobody = 65534;

// A rule document: directives as (verb, item) pairs, and include names.
std::string ruleDocument(const std::vector<std::pair<std::string, std::string>>& directives,
                         const std::vector<std::string>& includes = {}) {
    std::string xml =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
        "<plist version=\"1.0\">\n<dict>\n  <key>Description</key><string>test rule</string>\n"
        "  <key>Directives</key>\n  <array>\n";
    for (const auto& [verb, item] : directives) {
        xml += "    <dict><key>Directive</key><string>" + verb + "</string><key>Item</key><string>" + item +
               "</string></dict>\n";
    }
    xml += "  </array>\n  <key>Include Directives</key>\n  <array>\n";
    for (const auto& name : includes) xml += "    <string>" + name + "</string>\n";
    xml += "  </array>\n</dict>\n</plist>\n";
    return xml;
}

TEST(EngineRules, TheRuleDecidesWhatIsCopiedAndTheDeeperAnchorWins) {
    TempDir tmp;
    const std::string src = tmp / "src", dst = tmp / "dst";
    Tree::write(src + "/Users/ann/Documents/a.txt", "ann's\n");
    Tree::write(src + "/Users/ann/Library/Caches/big.tmp", "cache\n");
    Tree::write(src + "/Users/bob/x.txt", "bob's\n");
    Tree::write(src + "/Applications/app.txt", "app\n");
    Tree::write(tmp / "rules/Mine.dset", ruleDocument({{"exclude", "Users"}, {"copy", "Users/ann"}},
                                                      {"No caches.dset"}));
    // Anchored deeper than "copy Users/ann", so it wins there ("**/Caches" would not: its anchor is 0).
    Tree::write(tmp / "rules/No caches.dset", ruleDocument({{"exclude", "Users/ann/Library/Caches"}}));

    auto run = runEngine({{"--script", tmp / "rules/Mine.dset", "--script-search-dir", tmp / "rules",
                           "--strict-includes", "--emit-items", src, dst}});
    ASSERT_EQ(run.exitStatus, 0) << run.describe();
    EXPECT_EQ(Tree::read(dst + "/Users/ann/Documents/a.txt"), "ann's\n");
    EXPECT_EQ(Tree::read(dst + "/Applications/app.txt"), "app\n");
    EXPECT_FALSE(Tree::exists(dst + "/Users/bob"));
    EXPECT_FALSE(Tree::exists(dst + "/Users/ann/Library/Caches"));
    EXPECT_TRUE(Tree::exists(dst + "/Users/ann/Library"));
    std::set<std::string> skipped;
    for (const auto& e : run.ofType("item")) {
        if (e["side"] == "src" && e["action"] == "skip") {
            skipped.insert(e["path"].get<std::string>());
            EXPECT_FALSE(e["sel"].get<bool>());
        }
    }
    EXPECT_TRUE(skipped.count("/Users/bob"));
    EXPECT_TRUE(skipped.count("/Users/ann/Library/Caches"));
    EXPECT_EQ(run.first("summary")->value("scout_total_files", -1), 2);
}

TEST(EngineRules, PreserveDirectivesAndFlagsKeepDestinationItems) {
    TempDir tmp;
    const std::string src = tmp / "src", dst = tmp / "dst";
    Tree::write(src + "/Users/ann/notes.txt", "new notes\n");
    Tree::write(src + "/Archive/b.txt", "source b\n");
    Tree::write(src + "/Pinned/p.txt", "source p\n");
    Tree::write(dst + "/Users/ann/notes.txt", "old notes\n");
    Tree::write(dst + "/Users/ann/old.txt", "stale\n");
    Tree::write(dst + "/Users/ann/VMs/disk.img", "virtual disk\n");
    Tree::write(dst + "/Archive/a.txt", "only on the backup\n");
    Tree::write(dst + "/Archive/b.txt", "backup b\n");
    Tree::write(dst + "/Pinned/p.txt", "backup p\n");
    for (const char* rel : {"/Users/ann/notes.txt", "/Archive/b.txt", "/Pinned/p.txt"}) Tree::setMtime(dst + rel, 1'600'000'000);
    Tree::write(tmp / "Keep.dset", ruleDocument({{"preserve", "Users/ann/VMs"}, {"preserve", "Pinned"}}));

    auto run = runEngine({{"--delete", "--script", tmp / "Keep.dset", "--preserve-if-absent", "Archive/**", src, dst}});
    ASSERT_EQ(run.exitStatus, 0) << run.describe();
    EXPECT_EQ(Tree::read(dst + "/Users/ann/notes.txt"), "new notes\n");
    EXPECT_FALSE(Tree::exists(dst + "/Users/ann/old.txt"));
    EXPECT_EQ(Tree::read(dst + "/Users/ann/VMs/disk.img"), "virtual disk\n");
    EXPECT_EQ(Tree::read(dst + "/Archive/a.txt"), "only on the backup\n") << "kept while the source lacks it";
    EXPECT_EQ(Tree::read(dst + "/Archive/b.txt"), "source b\n") << "replaced when the source has it";
    EXPECT_EQ(Tree::read(dst + "/Pinned/p.txt"), "backup p\n") << "preserve keeps the destination's version";
    EXPECT_EQ(run.first("summary")->value("items_deleted", -1), 1);
}

EngineLaunch asNobody(std::vector<std::string> args, const std::string& tree) {
    EngineLaunch launch{std::move(args)};
    if (::geteuid() == 0) {
        Tree::chownTree(tree, nobody, nobody);
        launch.uid = nobody;
        launch.gid = nobody;
    }
    return launch;
}

TEST(EngineRules, OptionalAndRetainOnErrorItemsAreIgnoredErrors) {
    if (auto why = ql::testing::whyOtherUsersCantRun()) GTEST_SKIP() << *why;

    TempDir tmp;
    const std::string src = tmp / "src", dst = tmp / "dst";
    Tree::write(src + "/swap/vm.img", "unreadable\n");
    Tree::write(src + "/Caches/c.db", "unreadable too\n");
    Tree::write(src + "/ok.txt", "fine\n");
    Tree::write(dst + "/Caches/c.db", "the backup's copy\n");
    auto launch = asNobody({"--optional", "swap", "--retain-on-error", "Caches/*.db", "--delete", src, dst}, tmp.path());
    ASSERT_EQ(::chmod((src + "/swap/vm.img").c_str(), 0), 0);
    ASSERT_EQ(::chmod((src + "/Caches/c.db").c_str(), 0), 0);

    auto run = runEngine(launch);
    EXPECT_EQ(run.exitStatus, 0) << run.describe();
    EXPECT_EQ(run.summaryInt("errors"), 0);
    EXPECT_EQ(run.summaryInt("ignored_errors"), 2);
    EXPECT_EQ(Tree::read(dst + "/Caches/c.db"), "the backup's copy\n");
    EXPECT_EQ(Tree::read(dst + "/ok.txt"), "fine\n");
}

TEST(EngineRules, ChangedRulesAreTheScanModeReason) {
    TempDir tmp;
    Tree::write(tmp / "src/a.txt", "a\n");
    Tree::write(tmp / "R.dset", ruleDocument({{"exclude", "*.tmp"}}));
    const std::string state = tmp / "state.json";
    auto args = std::vector<std::string>{"--state", state, "--script", tmp / "R.dset", tmp / "src", tmp / "dst"};
    ASSERT_EQ(runEngine({args}).exitStatus, 0);
    EXPECT_EQ(runEngine({args}).first("scan_mode")->value("reason", ""), "history_expired");
    Tree::write(tmp / "R.dset", ruleDocument({{"exclude", "*.tmp"}, {"exclude", "*.bak"}}));
    EXPECT_EQ(runEngine({args}).first("scan_mode")->value("reason", ""), "rules_changed");
}

TEST(EngineRules, ValidateScriptAnswersZeroOrThreeWithOneLine) {
    TempDir tmp;
    Tree::write(tmp / "good.dset", ruleDocument({{"exclude", "Library/Caches"}}, {"Inc.dset"}));
    Tree::write(tmp / "dir/Inc.dset", ruleDocument({{"copy", "Library"}}));
    Tree::write(tmp / "broken.dset", "this is not a property list");
    Tree::write(tmp / "bad-element.dset",
                "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>Directives</key><array><string>x</string>"
                "</array></dict></plist>");
    Tree::write(tmp / "dangling.dset", ruleDocument({}, {"Missing.dset"}));
    struct Case {
        std::vector<std::string> args;
        int status;
    };
    for (const Case& c : {Case{{"--script", tmp / "good.dset", "--script-search-dir", tmp / "dir", "--strict-includes"}, 0},
                          Case{{"--script", tmp / "broken.dset"}, 3}, Case{{"--script", tmp / "bad-element.dset"}, 3},
                          Case{{"--script", tmp / "dangling.dset", "--script-search-dir", tmp / "dir",
                                "--strict-includes"},
                               3},
                          Case{{"--script", tmp / "dangling.dset", "--script-search-dir", tmp / "dir"}, 0},
                          Case{{"--script", tmp / "absent.dset"}, 3}}) {
        EngineLaunch launch{c.args};
        launch.args.insert(launch.args.begin(), "--validate-script");
        launch.addProgressFd = false;
        auto run = runEngine(launch);
        EXPECT_EQ(run.exitStatus, c.status) << c.args[1] << "\n" << run.err;
        if (c.status == 3) {
            EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
            EXPECT_EQ(run.err.back(), '\n');
        } else {
            EXPECT_EQ(run.err, "");
        }
    }
}

TEST(EngineRules, AnUnloadableRuleFailsTheRunBeforeAnythingIsTouched) {
    TempDir tmp;
    Tree::write(tmp / "src/a.txt", "a\n");
    Tree::write(tmp / "Bad.dset", "garbage");
    auto run = runEngine({{"--script", tmp / "Bad.dset", tmp / "src", tmp / "dst"}});
    EXPECT_EQ(run.exitStatus, 3) << run.describe();
    ASSERT_TRUE(run.first("failure"));
    EXPECT_EQ(run.first("failure")->value("kind", ""), "script_load");
    EXPECT_EQ(run.first("failure")->value("message", "").rfind("qlcopy.failure.script_load: ", 0), 0u);
    EXPECT_FALSE(Tree::exists(tmp / "dst"));
}

}  // namespace
}  // namespace ql::test
