#include "qlcopy/EngineOptions.h"

#include <gtest/gtest.h>

namespace ql {
namespace {

using Args = std::vector<std::string>;

TEST(EngineOptions, TheServersFullArgumentVectorParses) {
    // Every flag the copy server can pass, in its order.
    auto o = EngineOptions::parse(Args{"--progress-fd", "3", "--state", "/var/state/t.json", "--snapshot", "/snap",
                                       "--snap-event-anchor", "18446744073709551615", "--copy-mode", "different",
                                       "--delete", "--clone-families", "--script", "/r/Rule.dset", "--script-search-dir",
                                       "/r", "--script-search-dir", "/s", "--strict-includes", "--dry-run",
                                       "--abort-on-error-count", "0", "--emit-items", "--console-home", "/Users/ann",
                                       "--keybag-sentinel", "/k/sentinel", "--keybag-uid", "501", "--keybag-home",
                                       "/Users/ann", "--preserve-if-absent", "Backups/**", "--preserve-if-absent", "x",
                                       "--optional", "private/var/vm", "--retain-on-error", "Library/Caches",
                                       "--map-noowners-owner", "501:20", "/Volumes/Source", "/Volumes/Backup"});
    ASSERT_TRUE(o) << o.error().message;
    EXPECT_EQ(o->command, EngineOptions::Command::copy);
    EXPECT_EQ(o->progressFd, 3);
    EXPECT_EQ(o->statePath, "/var/state/t.json");
    EXPECT_EQ(o->snapshotMount, "/snap");
    EXPECT_EQ(o->snapEventAnchor, 18446744073709551615ull);
    EXPECT_EQ(o->copyMode, CopyMode::different);
    EXPECT_TRUE(o->deleteExtraneous);
    EXPECT_TRUE(o->cloneFamilies);
    EXPECT_EQ(o->scriptPath, "/r/Rule.dset");
    EXPECT_EQ(o->scriptSearchDirs, (Args{"/r", "/s"}));
    EXPECT_TRUE(o->strictIncludes);
    EXPECT_TRUE(o->dryRun);
    EXPECT_EQ(o->abortOnErrorCount, 0);
    EXPECT_TRUE(o->emitItems);
    EXPECT_EQ(o->consoleHome, "/Users/ann");
    EXPECT_EQ(o->keybagSentinel, "/k/sentinel");
    EXPECT_EQ(o->keybagUid, 501u);
    EXPECT_EQ(o->preserveIfAbsent, (Args{"Backups/**", "x"}));
    EXPECT_EQ(o->optionalPatterns, (Args{"private/var/vm"}));
    EXPECT_EQ(o->retainOnError, (Args{"Library/Caches"}));
    EXPECT_EQ(o->noOwnersOwner, (OwnerMapping{501, 20}));
    EXPECT_EQ(o->source, "/Volumes/Source");
    EXPECT_EQ(o->destination, "/Volumes/Backup");
}

TEST(EngineOptions, ModesAndCommands) {
    struct Case {
        Args args;
        CopyMode mode;
        bool deletes;
        EngineOptions::Command command;
    };
    for (const Case& c : {
             Case{{"--progress-fd", "1", "a", "b"}, CopyMode::different, false, EngineOptions::Command::copy},
             Case{{"--progress-fd", "1", "--copy-mode", "newer", "a", "b"}, CopyMode::newer, false,
                  EngineOptions::Command::copy},
             Case{{"--progress-fd", "1", "--copy-mode", "smart", "a", "b"}, CopyMode::different, true,
                  EngineOptions::Command::copy},
             Case{{"--version"}, CopyMode::different, false, EngineOptions::Command::version},
             Case{{"--validate-script", "--script", "r.dset"}, CopyMode::different, false,
                  EngineOptions::Command::validateScript},
             Case{{"--help"}, CopyMode::different, false, EngineOptions::Command::help},
         }) {
        auto o = EngineOptions::parse(c.args);
        ASSERT_TRUE(o) << c.args[0] << ": " << o.error().message;
        EXPECT_EQ(o->copyMode, c.mode) << c.args[2];
        EXPECT_EQ(o->deleteExtraneous, c.deletes);
        EXPECT_EQ(o->command, c.command);
    }
}

TEST(EngineOptions, UsageErrorsSayWhatIsWrong) {
    struct Case {
        Args args;
        const char* mentions;
    };
    for (const Case& c : {
             Case{{"--progress-fd", "3", "--bogus", "a", "b"}, "bogus"},
             Case{{"a", "b"}, "--progress-fd"},
             Case{{"--progress-fd", "3", "a"}, "SOURCE DEST"},
             Case{{"--progress-fd", "3", "a", "b", "c"}, ""},
             Case{{"--progress-fd", "-1", "a", "b"}, ""},
             Case{{"--progress-fd", "3", "--copy-mode", "fastest", "a", "b"}, "fastest"},
             Case{{"--progress-fd", "3", "--map-noowners-owner", "501", "a", "b"}, "uid:gid"},
             Case{{"--progress-fd", "3", "--map-noowners-owner", "x:1", "a", "b"}, "uid:gid"},
             Case{{"--progress-fd", "3", "--map-noowners-owner", "1:99999999999", "a", "b"}, "uid:gid"},
             Case{{"--validate-script"}, "--script"},
             Case{{"--progress-fd", "3", "--no-keybag", "--keybag-sentinel", "/s", "a", "b"}, "contradict"},
             Case{{"--progress-fd", "3", "--abort-on-error-count", "-2", "a", "b"}, ""},
         }) {
        auto o = EngineOptions::parse(c.args);
        ASSERT_FALSE(o) << c.args[2];
        EXPECT_NE(o.error().message.find(c.mentions), std::string::npos) << o.error().message;
    }
}

TEST(EngineOptions, UsageTextListsTheFlags) {
    auto text = EngineOptions::usageText();
    for (const char* flag : {"--progress-fd", "--copy-mode", "--delete", "--validate-script", "--map-noowners-owner"}) {
        EXPECT_NE(text.find(flag), std::string::npos) << flag;
    }
}

}  // namespace
}  // namespace ql
