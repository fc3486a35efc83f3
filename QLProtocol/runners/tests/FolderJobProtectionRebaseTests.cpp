#include "QLProtocol/runners/FolderJobProtectionRebase.h"

#include <gtest/gtest.h>

namespace {

using ql::FolderJobProtectionRebase;
using List = std::vector<std::string>;

struct Case {
    const char* pattern;
    const char* root;
    std::optional<std::string> expected;  // absent: dropped
};

TEST(FolderJobProtectionRebase, RebasesKeepsWidensOrDrops) {
    const Case cases[] = {
        // The four defining examples.
        {"Users/*/Library/Logs/*", "Users/ann/Documents", std::nullopt},
        {"Users/*/Library/Logs/*", "Users/ann", "Library/Logs/*"},
        {"Users/*/Library/Logs/*", "Users/ann/Library/Logs/x", "*"},
        {"**/.DS_Store", "Users/ann", std::nullopt},
        // Literal segments.
        {"Library/Caches/*", "Library", "Caches/*"},
        {"Library/Caches/*", "Users", std::nullopt},
        {"Library/Caches", "Library/Caches", "*"},
        {"Library/Caches", "Library/Caches/com.example", "*"},
        {"Library/Caches", "Library/Cache", std::nullopt},
        // Wildcards within one segment only.
        {"Users/a*/Music", "Users/ann", "Music"},
        {"Users/b*/Music", "Users/ann", std::nullopt},
        {"Users/?nn/Music", "Users/ann", "Music"},
        {"Users/[ab]nn/Music", "Users/ann", "Music"},
        {"Users/*/Music", "Users/ann/Music/iTunes", "*"},
        {"Users/*", "Users/ann", "*"},
        // "**" cannot be placed relative to a folder within the folder's depth.
        {"/**/Caches", "Users/ann", std::nullopt},
        {"**", "Users/ann", std::nullopt},
        {"Users/**/Caches", "Users/ann", std::nullopt},
        // Below the root depth it is part of the re-rooted rest.
        {"Users/ann/Projects/**/build", "Users/ann", "Projects/**/build"},
        // Slashes and "." segments do not matter; a trailing slash is kept.
        {"/Users//*/./Library/Logs/", "/Users/ann/", "Library/Logs/"},
        {"Users/*/Library", "./Users/ann", "Library"},
        // Case matters.
        {"users/*/Library", "Users/ann", std::nullopt},
        // Empty pattern.
        {"", "Users/ann", std::nullopt},
    };
    for (const auto& c : cases) {
        auto out = FolderJobProtectionRebase::rebase({c.pattern}, c.root);
        if (c.expected) {
            ASSERT_EQ(out.size(), 1u) << c.pattern << " @ " << c.root;
            EXPECT_EQ(out[0], *c.expected) << c.pattern << " @ " << c.root;
        } else {
            EXPECT_TRUE(out.empty()) << c.pattern << " @ " << c.root << " gave " << (out.empty() ? "" : out[0]);
        }
    }
}

TEST(FolderJobProtectionRebase, KeepsOrderOfWhatSurvives) {
    List patterns = {"Users/*/Library/Logs/*", "**/node_modules", "Users/*/Documents/Drafts", "Users/ann",
                     "Applications/*"};
    EXPECT_EQ(FolderJobProtectionRebase::rebase(patterns, "Users/ann"),
              List({"Library/Logs/*", "Documents/Drafts", "*"}));
    EXPECT_TRUE(FolderJobProtectionRebase::rebase({}, "Users/ann").empty());
}

}  // namespace
