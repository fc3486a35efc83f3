#include "QLModel/CompiledCopyRules.h"
#include "QLModel/CopyRuleDisposition.h"
#include "QLModel/CopyRuleSet.h"

#include <gtest/gtest.h>

#include <random>

namespace ql {
namespace {

using D = CopyRuleDisposition;

// Names and item segments drawn from small pools, so that generated items and paths meet often.
const std::vector<std::string> kNames{"a", "b", "Users", "ann", "Library", ".DS_Store", "x.txt", "IMG_1", "été", "[a"};
const std::vector<std::string> kItemSegments{"a",   "b",    "Users", "ann",  "Library", ".DS_Store", "*",  "**",
                                             "**",  "?",    "a*",    "*.txt", "[ab]",   "[!a]*",     "IMG_*", "*a*",
                                             "été", "?t?",  "",      "[a",   "x.txt"};
const std::vector<std::string> kTokens{"copy",     "clone",    "exclude",            "ignore",          "optional",
                                       "preserve", "preserve_if_absent", "preserveifabsent", "preserve-if-absent", "frob"};

struct Generator {
    std::mt19937_64 rng;
    explicit Generator(std::uint64_t seed) : rng(seed) {}

    std::size_t pick(std::size_t n) { return static_cast<std::size_t>(rng() % n); }

    std::string item() {
        std::string out;
        if (pick(6) == 0) out += "/";
        const std::size_t segments = 1 + pick(4);
        for (std::size_t i = 0; i < segments; ++i) {
            if (i) out += "/";
            out += kItemSegments[pick(kItemSegments.size())];
        }
        if (pick(6) == 0) out += "/";
        return out;
    }

    CopyRuleDocument document(std::size_t directives, std::vector<std::string> includes) {
        CopyRuleDocument doc;
        for (std::size_t i = 0; i < directives; ++i) {
            doc.directives.push_back(Directive{kTokens[pick(kTokens.size())], item(), {}});
        }
        doc.includeDirectives = std::move(includes);
        return doc;
    }

    std::string path() {
        std::string out;
        const std::size_t depth = pick(6);
        for (std::size_t i = 0; i < depth; ++i) {
            if (i) out += "/";
            out += kNames[pick(kNames.size())];
        }
        return out;
    }
};

// A rule with two includes, one of which includes a third, all randomly filled.
CopyRuleSet randomSet(Generator& g) {
    std::vector<CopyRuleSet::Included> includes;
    includes.push_back({"First.dset", {}, g.document(g.pick(6), {"Nested.dset"})});
    includes.push_back({"Second.dset", {}, g.document(g.pick(6), {})});
    includes.push_back({"Nested.dset", {}, g.document(g.pick(4), {})});
    return CopyRuleSet::fromDocuments(g.document(1 + g.pick(10), {"First.dset", "Second.dset"}), std::move(includes));
}

TEST(CompiledCopyRules, EqualsThePerPathRuleOnGeneratedPathsAndDocuments) {
    Generator g(20240301);
    std::size_t compared = 0, settled = 0;
    for (int round = 0; round < 100; ++round) {
        const CopyRuleSet set = randomSet(g);
        const auto merged = set.merged();
        ASSERT_TRUE(merged.problems.empty());
        const CompiledCopyRules rules = CompiledCopyRules::compile(set);
        CopyRuleWalker walker(rules);
        for (int i = 0; i < 80; ++i) {
            const std::string path = g.path();
            const auto expected = D::evaluate(merged.directives, path);
            const RuleCursor cursor = walker.cursorFor(path);
            ASSERT_EQ(walker.evaluation(cursor), expected)
                << "round " << round << " path “" << path << "”";
            ASSERT_EQ(walker.disposition(cursor), expected.source.disposition);
            ++compared;
            settled += walker.isSettled(cursor) ? 1 : 0;
        }
    }
    EXPECT_EQ(compared, 8000u);
    EXPECT_GT(settled, 0u);
}

// The engine's way: a depth-first walk that derives each entry from its folder's cursor, with
// the walker's cache warm from earlier folders; settled folders share their answers below.
TEST(CompiledCopyRules, TreeWalkFromParentCursorsEqualsThePerPathRule) {
    Generator g(77);
    std::size_t totalPrunedCopy = 0, totalPrunedPreserve = 0;
    for (int round = 0; round < 12; ++round) {
        const CopyRuleSet set = randomSet(g);
        const auto merged = set.merged().directives;
        const CompiledCopyRules rules = CompiledCopyRules::compile(set);
        CopyRuleWalker walker(rules);
        struct Frame {
            std::string path;
            RuleCursor cursor;
            int depth;
            bool noCopyBelow;      // an ancestor promised nothing below is copied
            bool noPreserveBelow;  // an ancestor promised nothing below is preserved
        };
        std::vector<Frame> stack{{"", walker.root(), 0, false, false}};
        std::size_t prunedCopy = 0, prunedPreserve = 0;
        std::size_t visited = 0;
        while (!stack.empty()) {
            const Frame frame = stack.back();
            stack.pop_back();
            for (const auto& name : kNames) {
                const std::string path = frame.path.empty() ? name : frame.path + "/" + name;
                const RuleCursor c = walker.child(frame.cursor, name);
                const auto expected = D::evaluate(merged, path);
                ASSERT_EQ(walker.evaluation(c), expected) << "round " << round << " path “" << path << "”";
                if (walker.isSettled(frame.cursor)) {
                    ASSERT_EQ(c, frame.cursor);
                }
                if (frame.noCopyBelow) {
                    ASSERT_EQ(expected.source.disposition, D::Disposition::skip) << path;
                    ++prunedCopy;
                }
                if (frame.noPreserveBelow) {
                    ASSERT_FALSE(expected.preserve) << path;
                    ++prunedPreserve;
                }
                ++visited;
                if (frame.depth < 2) {
                    stack.push_back({path, c, frame.depth + 1, frame.noCopyBelow || !walker.mayCopyBelow(c),
                                     frame.noPreserveBelow || !walker.mayPreserveBelow(c)});
                }
            }
        }
        ASSERT_GT(visited, 1000u);
        totalPrunedCopy += prunedCopy;
        totalPrunedPreserve += prunedPreserve;
        // A second walk over the same tree meets no new states.
        const std::size_t states = walker.stateSetCount();
        RuleCursor c = walker.root();
        for (const auto& name : kNames) c = walker.child(walker.child(c, name), name);
        EXPECT_EQ(walker.stateSetCount(), states);
    }
    // The promises were made often enough to mean something.
    EXPECT_GT(totalPrunedCopy, 100u);
    EXPECT_GT(totalPrunedPreserve, 100u);
}

TEST(CompiledCopyRules, ReportsInertDirectivesAndSettledSubtrees) {
    const auto rules = CompiledCopyRules::compile({
        {Directive{"exclude", "/", {}}, std::nullopt},
        {Directive{"exclude", "Users/[ann", {}}, "Base.dset"},
        {Directive{"frob", "", {}}, std::nullopt},  // unknown verbs are not reported
        {Directive{"copy", "a//b", {}}, std::nullopt},
        {Directive{"exclude", "Users", {}}, std::nullopt},
        {Directive{"copy", "Users/ann", {}}, std::nullopt},
    });
    ASSERT_EQ(rules.inertDirectives().size(), 3u);
    EXPECT_EQ(rules.inertDirectives()[0].index, 0u);
    EXPECT_EQ(rules.inertDirectives()[1].index, 1u);
    EXPECT_NE(rules.inertDirectives()[1].reason.find("Users/[ann"), std::string::npos);
    EXPECT_EQ(rules.inertDirectives()[2].index, 3u);

    CopyRuleWalker w(rules);
    const RuleCursor apps = w.child(w.root(), "Applications");
    EXPECT_TRUE(w.isSettled(apps));
    EXPECT_EQ(w.disposition(apps), D::Disposition::copy);
    const RuleCursor users = w.child(w.root(), "Users");
    EXPECT_FALSE(w.isSettled(users));  // Users/ann is copied again below
    EXPECT_EQ(w.disposition(users), D::Disposition::skip);
    EXPECT_TRUE(w.mayCopyBelow(users));
    const RuleCursor bob = w.child(users, "bob");
    EXPECT_TRUE(w.isSettled(bob));
    EXPECT_EQ(w.disposition(bob), D::Disposition::skip);
    EXPECT_FALSE(w.mayCopyBelow(bob));
    EXPECT_FALSE(w.mayPreserveBelow(bob));
    const RuleCursor ann = w.child(users, "ann");
    EXPECT_EQ(w.disposition(ann), D::Disposition::copy);
    ASSERT_NE(w.sourceDirective(ann), nullptr);
    EXPECT_EQ(w.sourceDirective(ann)->directive.item, "Users/ann");
    EXPECT_EQ(w.sourceDirective(w.root()), nullptr);
    EXPECT_EQ(w.resolved(w.root()).provenance, D::Provenance::base());
}

TEST(CompiledCopyRules, SkippedFoldersWithOnlySkipsAliveNeedNoWalk) {
    const auto rules = CompiledCopyRules::compile({
        {Directive{"exclude", "Library", {}}, std::nullopt},
        {Directive{"exclude", "**/.DS_Store", {}}, std::nullopt},
        {Directive{"preserve", "**/keep", {}}, std::nullopt},
        {Directive{"optional", "Volumes/*/maybe", {}}, std::nullopt},
        {Directive{"exclude", "Volumes", {}}, std::nullopt},
    });
    CopyRuleWalker w(rules);
    const RuleCursor library = w.child(w.root(), "Library");
    EXPECT_EQ(w.disposition(library), D::Disposition::skip);
    EXPECT_FALSE(w.isSettled(library));
    EXPECT_FALSE(w.mayCopyBelow(library));
    EXPECT_TRUE(w.mayPreserveBelow(library));
    const RuleCursor volumes = w.child(w.root(), "Volumes");
    EXPECT_EQ(w.disposition(volumes), D::Disposition::skip);
    EXPECT_TRUE(w.mayCopyBelow(volumes));
    EXPECT_EQ(w.disposition(w.cursorFor("Volumes/x/maybe/y")), D::Disposition::optional);
}

}  // namespace
}  // namespace ql
