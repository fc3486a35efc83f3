#include "QLModel/Glob.h"

#include <gtest/gtest.h>

namespace ql {
namespace {

TEST(Glob, MatchesTable) {
    struct Case {
        const char* pattern;
        const char* path;
        bool matches;
    } cases[] = {
        // Literal paths match themselves only, whole and case-sensitively.
        {"Users/ann", "Users/ann", true},
        {"Users/ann", "Users/ann/x", false},
        {"Users/ann", "Users/Ann", false},
        {"Users/ann", "Users", false},
        // "*" stays within one segment.
        {"Users/*/Library", "Users/ann/Library", true},
        {"Users/*/Library", "Users/ann/x/Library", false},
        {"Users/*/Library", "Users//Library", true},
        {"*.dmg", "big.dmg", true},
        {"*.dmg", "a/big.dmg", false},
        {"*", ".hidden", true},
        {".*", ".hidden", true},
        {".*", "visible", false},
        {"a*b*c", "aXXbYYc", true},
        {"a*b*c", "abcbc", true},
        {"a*b*c", "acb", false},
        {"a**b", "aXb", true},
        {"a**b", "aX/Yb", false},
        // "**" spans any number of segments, zero included.
        {"Users/**/Library", "Users/ann/Library", true},
        {"Users/**/Library", "Users/ann/x/Library", true},
        {"Users/**/Library", "Users/Library", true},
        {"Users/**/Library", "Users/ann/Library/x", false},
        {"**/.DS_Store", ".DS_Store", true},
        {"**/.DS_Store", "a/b/c/.DS_Store", true},
        {"**/.DS_Store", "a/.DS_Store/b", false},
        {"Users/**", "Users", true},
        {"Users/**", "Users/a/b", true},
        {"Users/**", "Other", false},
        {"**", "anything/at/all", true},
        {"**/**/x", "x", true},
        {"a/**/b/**/c", "a/b/c", true},
        {"a/**/b/**/c", "a/1/b/2/3/c", true},
        {"a/**/b/**/c", "a/1/c/2/b", false},
        // "?" is one character, never "/", and one UTF-8 character rather than one byte.
        {"file?.txt", "file1.txt", true},
        {"file?.txt", "file.txt", false},
        {"a?b", "a/b", false},
        {"caf?", "café", true},
        {"caf??", "café", false},
        // Classes, ranges and negation.
        {"IMG_[0-9][0-9]", "IMG_42", true},
        {"IMG_[0-9][0-9]", "IMG_4x", false},
        {"[!.]*", "visible", true},
        {"[!.]*", ".hidden", false},
        {"[^.]*", ".hidden", false},
        {"[]]x", "]x", true},
        {"[ée]t[ée]", "été", true},
        {"[a-c]", "d", false},
        // Backslash is an ordinary character.
        {"a\\*b", "a\\xyzb", true},
        // Empty segments only match empty segments.
        {"a//b", "a/b", false},
        {"a//b", "a//b", true},
    };
    for (const auto& c : cases) {
        auto g = Glob::compile(c.pattern);
        ASSERT_TRUE(g) << c.pattern;
        EXPECT_EQ(g->matches(c.path), c.matches) << c.pattern << " vs " << c.path;
    }
}

TEST(Glob, UnclosedClassIsRejectedWithTheWholePattern) {
    for (const char* bad : {"Users/[abc", "[", "a/[!]", "x[a/b]y"}) {
        auto g = Glob::compile(bad);
        ASSERT_FALSE(g) << bad;
        EXPECT_EQ(g.error().kind, Glob::GlobError::Kind::unterminatedCharacterClass);
        EXPECT_EQ(g.error().pattern, bad);
        EXPECT_NE(g.error().message().find(bad), std::string::npos);
    }
    EXPECT_TRUE(Glob::compile("a]b"));
}

TEST(Glob, TellsLiteralItemsFromPatterns) {
    EXPECT_FALSE(Glob::hasMetacharacters("Users/ann/Library"));
    EXPECT_FALSE(Glob::hasMetacharacters("a]b"));
    for (const char* p : {"a*", "a?", "a[b]"}) EXPECT_TRUE(Glob::hasMetacharacters(p)) << p;
    EXPECT_TRUE(Glob::compile("Users/ann")->isLiteral());
    EXPECT_FALSE(Glob::compile("Users/**")->isLiteral());
}

// The prefix/suffix/infix shortcuts answer exactly as the general matcher, odd bytes included.
TEST(Glob, ShapeShortcutsAgreeWithTheGeneralMatcher) {
    const char* patterns[] = {"IMG_*", "*.tmp", "*cache*", "é*", "*é", "*é*", "*\xA9", "com.apple.*", "**x"};
    const std::string names[] = {"IMG_1", "IMG_", "img_1", "a.tmp", ".tmp", "a.tmpx", "mycachedir", "cache", "été",
                                 "café", "\xC3\xA9", "\xC3\xC3\xA9", "x\xA9", "com.apple.x", "", "x", "xx"};
    int shortcuts = 0;
    for (const char* p : patterns) {
        auto g = Glob::compile(p);
        ASSERT_TRUE(g) << p;
        const Glob::Segment& seg = g->segments().front();
        Glob::Segment general = seg;
        general.shape = Glob::Segment::Shape::general;
        shortcuts += seg.shape != Glob::Segment::Shape::general;
        for (const auto& n : names) {
            EXPECT_EQ(Glob::matchSegment(seg, n), Glob::matchSegment(general, n)) << p << " vs " << n;
        }
    }
    EXPECT_GE(shortcuts, 5);
}

// Star backtracking must not blow up on adversarial names.
TEST(Glob, PathologicalStarsFinishQuickly) {
    auto g = Glob::compile("*a*a*a*a*a*a*a*a*b");
    ASSERT_TRUE(g);
    EXPECT_FALSE(g->matches(std::string(5000, 'a')));
    EXPECT_TRUE(g->matches(std::string(5000, 'a') + "b"));
    auto deep = Glob::compile("**/**/**/**/x");
    std::string path;
    for (int i = 0; i < 500; ++i) path += "d/";
    EXPECT_TRUE(deep->matches(path + "x"));
    EXPECT_FALSE(deep->matches(path + "y"));
}

}  // namespace
}  // namespace ql
