#include "QLProtocol/runners/QlcopyInvocation.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

namespace wire = ql4::transport::v1;
using ql::KeybagProvenance;
using ql::QlcopyInvocation;
using ql::SnapshotContext;
using Args = std::vector<std::string>;

wire::CopyRequest request(wire::DuringCopyMethod method) {
    wire::CopyRequest r;
    r.set_tile_id("6F1C6E4A-0000-4000-8000-000000000001");
    r.set_during_copy(method);
    return r;
}

QlcopyInvocation::Inputs basicInputs() {
    QlcopyInvocation::Inputs in;
    in.statePath = "/var/lib/quillo4/state/tile.qlstate";
    in.sourcePath = "/Volumes/Macintosh HD";
    in.destinationPath = "/Volumes/Backup";
    return in;
}

Args head() { return {"--progress-fd", "3", "--state", "/var/lib/quillo4/state/tile.qlstate"}; }

Args concat(std::initializer_list<Args> parts) {
    Args all;
    for (const auto& p : parts) all.insert(all.end(), p.begin(), p.end());
    return all;
}

const Args kTail = {"/Volumes/Macintosh HD", "/Volumes/Backup"};

struct ModeCase {
    const char* name;
    wire::DuringCopyMethod method;
    Args modeArgs;
};

TEST(QlcopyInvocation, CopyModeAndDeleteFollowTheDuringCopyMethod) {
    const ModeCase cases[] = {
        {"smart update", wire::DCM_SMART_UPDATE, {"--copy-mode", "different", "--delete"}},
        {"copy different", wire::DCM_COPY_DIFFERENT, {"--copy-mode", "different"}},
        {"copy newer", wire::DCM_COPY_NEWER, {"--copy-mode", "newer"}},
        {"erase then copy", wire::DCM_ERASE_THEN_COPY, {"--copy-mode", "different"}},
        {"unspecified", wire::DCM_UNSPECIFIED, {"--copy-mode", "different"}},
        {"unknown number", static_cast<wire::DuringCopyMethod>(42), {"--copy-mode", "different"}},
    };
    for (const auto& c : cases) {
        auto inv = QlcopyInvocation::make("/usr/libexec/qlcopy", request(c.method), basicInputs());
        EXPECT_EQ(inv.binary, "/usr/libexec/qlcopy") << c.name;
        EXPECT_EQ(inv.arguments, concat({head(), c.modeArgs, {"--clone-families"}, kTail})) << c.name;
    }
}

TEST(QlcopyInvocation, PreviewAndDryRun) {
    struct Case {
        const char* name;
        bool dryRun;
        bool preview;
        bool emitItems;
        Args expected;
    };
    const Args dry = {"--dry-run", "--abort-on-error-count", "0"};
    const Case cases[] = {
        {"neither, emit items ignored", false, false, true, {}},
        {"dry run", true, false, false, dry},
        {"dry run emitting items", true, false, true, concat({dry, {"--emit-items"}})},
        {"preview always emits items", false, true, false, concat({dry, {"--emit-items"}})},
        {"preview and dry run", true, true, true, concat({dry, {"--emit-items"}})},
    };
    for (const auto& c : cases) {
        auto r = request(wire::DCM_COPY_DIFFERENT);
        r.set_dry_run(c.dryRun);
        r.set_preview(c.preview);
        auto in = basicInputs();
        in.emitItems = c.emitItems;
        auto inv = QlcopyInvocation::make("/q", r, in);
        EXPECT_EQ(inv.arguments,
                  concat({head(), {"--copy-mode", "different", "--clone-families"}, c.expected, kTail}))
            << c.name;
    }
}

TEST(QlcopyInvocation, PreviewOfAJobWithoutRuleHasNoScript) {
    auto r = request(wire::DCM_SMART_UPDATE);
    r.set_preview(true);
    auto inv = QlcopyInvocation::make("/q", r, basicInputs());
    EXPECT_EQ(inv.arguments, concat({head(),
                                     {"--copy-mode", "different", "--delete", "--clone-families", "--dry-run",
                                      "--abort-on-error-count", "0", "--emit-items"},
                                     kTail}));
    EXPECT_THAT(inv.arguments, ::testing::Not(::testing::Contains("--script")));
}

TEST(QlcopyInvocation, RuleWithAndWithoutSearchDirectories) {
    auto r = request(wire::DCM_COPY_NEWER);
    r.set_copy_script_path("/Users/ann/Library/Application Support/Quillo!/Rules/Docs only.dset");
    auto without = QlcopyInvocation::make("/q", r, basicInputs());
    EXPECT_EQ(without.arguments, concat({head(),
                                         {"--copy-mode", "newer", "--clone-families", "--script",
                                          "/Users/ann/Library/Application Support/Quillo!/Rules/Docs only.dset"},
                                         kTail}));
    EXPECT_TRUE(QlcopyInvocation::searchDirArguments(r).empty());

    r.add_copy_script_search_dirs("/Users/ann/Library/Application Support/Quillo!/Rules");
    r.add_copy_script_search_dirs("/usr/share/quillo/CopyScripts/StandardScripts");
    const Args search = {"--script-search-dir", "/Users/ann/Library/Application Support/Quillo!/Rules",
                         "--script-search-dir", "/usr/share/quillo/CopyScripts/StandardScripts",
                         "--strict-includes"};
    EXPECT_EQ(QlcopyInvocation::searchDirArguments(r), search);
    auto with = QlcopyInvocation::make("/q", r, basicInputs());
    EXPECT_EQ(with.arguments, concat({head(),
                                      {"--copy-mode", "newer", "--clone-families", "--script",
                                       "/Users/ann/Library/Application Support/Quillo!/Rules/Docs only.dset"},
                                      search, kTail}));
}

TEST(QlcopyInvocation, SearchDirectoriesWithoutRuleAreNotPassed) {
    auto r = request(wire::DCM_COPY_DIFFERENT);
    r.add_copy_script_search_dirs("/rules");
    auto inv = QlcopyInvocation::make("/q", r, basicInputs());
    EXPECT_EQ(inv.arguments, concat({head(), {"--copy-mode", "different", "--clone-families"}, kTail}));
}

TEST(QlcopyInvocation, ValidationArguments) {
    auto r = request(wire::DCM_SMART_UPDATE);
    EXPECT_EQ(QlcopyInvocation::validationArguments(r), std::nullopt);

    r.set_copy_script_path("/rules/a.dset");
    EXPECT_EQ(QlcopyInvocation::validationArguments(r), Args({"--validate-script", "--script", "/rules/a.dset"}));

    r.add_copy_script_search_dirs("/rules");
    EXPECT_EQ(QlcopyInvocation::validationArguments(r),
              Args({"--validate-script", "--script", "/rules/a.dset", "--script-search-dir", "/rules",
                    "--strict-includes"}));
}

TEST(QlcopyInvocation, KeybagProvenances) {
    struct Case {
        const char* name;
        std::optional<KeybagProvenance> keybag;
        Args expected;
    };
    const Case cases[] = {
        {"absent", std::nullopt, {}},
        {"no keybag", KeybagProvenance::noKeybag(), {"--no-keybag"}},
        {"sentinel",
         KeybagProvenance::sentinel("/var/lib/quillo4/keybag-sentinel", 501, "/Users/ann"),
         {"--keybag-sentinel", "/var/lib/quillo4/keybag-sentinel", "--keybag-uid", "501", "--keybag-home",
          "/Users/ann"}},
        {"sentinel with the largest uid",
         KeybagProvenance::sentinel("/s", 4294967295u, "/h"),
         {"--keybag-sentinel", "/s", "--keybag-uid", "4294967295", "--keybag-home", "/h"}},
        {"sentinel with an empty home", KeybagProvenance::sentinel("/s", 501, ""), {}},
        {"sentinel with an empty path", KeybagProvenance::sentinel("", 501, "/Users/ann"), {}},
    };
    for (const auto& c : cases) {
        auto in = basicInputs();
        in.keybag = c.keybag;
        auto inv = QlcopyInvocation::make("/q", request(wire::DCM_COPY_DIFFERENT), in);
        EXPECT_EQ(inv.arguments,
                  concat({head(), {"--copy-mode", "different", "--clone-families"}, c.expected, kTail}))
            << c.name;
    }
}

TEST(QlcopyInvocation, EveryInputInItsPlace) {
    auto r = request(wire::DCM_SMART_UPDATE);
    r.set_copy_script_path("/rules/r.dset");
    r.add_copy_script_search_dirs("/rules");
    r.set_dry_run(true);

    QlcopyInvocation::Inputs in;
    in.statePath = "/state/t";
    in.snapshot = SnapshotContext{"/private/tmp/ql-snap/src", 18446744073709551615ull};
    in.emitItems = true;
    in.consoleHome = "/Users/ann";
    in.keybag = KeybagProvenance::noKeybag();
    in.preserveIfAbsent = {"usr", "opt", "private"};
    in.optional = {"Library/Logs/*", "Users/*/Library/Caches/*"};
    in.retainOnError = {"Users/*/.Trash"};
    in.noOwnersMapping = "501:20";
    in.sourcePath = "/src";
    in.destinationPath = "/dst";

    const Args expected = {
        "--progress-fd", "3",
        "--state", "/state/t",
        "--snapshot", "/private/tmp/ql-snap/src", "--snap-event-anchor", "18446744073709551615",
        "--copy-mode", "different", "--delete",
        "--clone-families",
        "--script", "/rules/r.dset", "--script-search-dir", "/rules", "--strict-includes",
        "--dry-run", "--abort-on-error-count", "0", "--emit-items",
        "--console-home", "/Users/ann",
        "--no-keybag",
        "--preserve-if-absent", "usr", "--preserve-if-absent", "opt", "--preserve-if-absent", "private",
        "--optional", "Library/Logs/*", "--optional", "Users/*/Library/Caches/*",
        "--retain-on-error", "Users/*/.Trash",
        "--map-noowners-owner", "501:20",
        "/src", "/dst",
    };
    auto inv = QlcopyInvocation::make("/opt/quillo/bin/qlcopy", r, in);
    ASSERT_EQ(inv.arguments.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) EXPECT_EQ(inv.arguments[i], expected[i]) << "element " << i;
    EXPECT_EQ(inv.argumentsText().substr(0, 32), "--progress-fd 3 --state /state/t");
}

TEST(QlcopyInvocation, EmptyOptionalStringsAreNotPassed) {
    auto in = basicInputs();
    in.consoleHome = "";
    in.noOwnersMapping = "";
    auto inv = QlcopyInvocation::make("/q", request(wire::DCM_COPY_NEWER), in);
    EXPECT_EQ(inv.arguments, concat({head(), {"--copy-mode", "newer", "--clone-families"}, kTail}));
}

TEST(QlcopyInvocation, PathsThatLookLikeFlagsStayPositionalAndLast) {
    auto in = basicInputs();
    in.sourcePath = "--delete";
    in.destinationPath = "";
    auto inv = QlcopyInvocation::make("/q", request(wire::DCM_COPY_NEWER), in);
    ASSERT_GE(inv.arguments.size(), 2u);
    EXPECT_EQ(inv.arguments[inv.arguments.size() - 2], "--delete");
    EXPECT_EQ(inv.arguments.back(), "");
    EXPECT_EQ(std::count(inv.arguments.begin(), inv.arguments.end(), "--delete"), 1);
}

}  // namespace
