#include "QLModel/CompiledCopyRules.h"
#include "QLModel/CopyRuleDeletion.h"
#include "QLModel/CopyRuleDisposition.h"

#include <gtest/gtest.h>

#include <map>

namespace ql {
namespace {

using D = CopyRuleDisposition;
using Disposition = D::Disposition;
using Kind = D::DestPreserveKind;
using Provenance = D::Provenance;

// "token item" or "token item @Origin.dset".
D::MergedDirective md(std::string_view line) {
    D::MergedDirective m;
    const auto space = line.find(' ');
    m.directive.token = std::string(line.substr(0, space));
    std::string_view rest = space == std::string_view::npos ? std::string_view{} : line.substr(space + 1);
    if (const auto at = rest.find(" @"); at != std::string_view::npos) {
        m.origin = std::string(rest.substr(at + 2));
        rest = rest.substr(0, at);
    }
    m.directive.item = std::string(rest);
    return m;
}

std::vector<D::MergedDirective> list(std::initializer_list<std::string_view> lines) {
    std::vector<D::MergedDirective> out;
    for (auto l : lines) out.push_back(md(l));
    return out;
}

D::Resolved base() { return {Disposition::copy, Provenance::base(), std::nullopt}; }
D::Resolved own(Disposition d, std::string item) { return {d, Provenance::own(), std::move(item)}; }
D::Resolved from(std::string rule, Disposition d, std::string item) { return {d, Provenance::rule(std::move(rule)), std::move(item)}; }

struct Row {
    const char* name;
    std::vector<D::MergedDirective> directives;
    const char* path;
    D::Resolved source;
    std::optional<D::DestPreserve> preserve = std::nullopt;
};

std::vector<Row> dispositionTable() {
    return {
        // Deeper literal anchor wins, whatever the order.
        {"deeper wins", list({"exclude Users", "copy Users/ann"}), "Users/ann/Documents", own(Disposition::copy, "Users/ann")},
        {"deeper wins though earlier", list({"copy Users/ann", "exclude Users"}), "Users/ann/Documents",
         own(Disposition::copy, "Users/ann")},
        {"shallower still decides the rest", list({"exclude Users", "copy Users/ann"}), "Users/bob", own(Disposition::skip, "Users")},
        {"anchor, not pattern length", list({"exclude Users/ann", "copy Users/*/Library"}), "Users/ann/Library",
         own(Disposition::skip, "Users/ann")},
        {"wildcard anchor is shallow", list({"copy Users", "exclude *"}), "Users/x", own(Disposition::copy, "Users")},
        // Equal anchors: the later directive wins.
        {"tie, later wins", list({"copy Users/ann", "exclude Users/ann"}), "Users/ann", own(Disposition::skip, "Users/ann")},
        {"tie, later wins reversed", list({"exclude Users/ann", "copy Users/ann"}), "Users/ann/x", own(Disposition::copy, "Users/ann")},
        {"own overrides include at a tie", list({"exclude Users @Base.dset", "copy Users"}), "Users/a", own(Disposition::copy, "Users")},
        {"include keeps a deeper anchor", list({"exclude Users/a @Base.dset", "copy Users"}), "Users/a/b",
         from("Base.dset", Disposition::skip, "Users/a")},
        {"zero-depth ties, later wins", list({"exclude *", "copy *.txt"}), "a.txt", own(Disposition::copy, "*.txt")},
        // Slashes around items do not matter.
        {"slashes trimmed", list({"exclude /Users/ann/"}), "Users/ann/x", own(Disposition::skip, "/Users/ann/")},
        {"path slashes ignored", list({"exclude Users/ann"}), "/Users//ann/", own(Disposition::skip, "Users/ann")},
        // "**" at zero depth.
        {"** at top level", list({"exclude **/.DS_Store"}), ".DS_Store", own(Disposition::skip, "**/.DS_Store")},
        {"** deep", list({"exclude **/.DS_Store"}), "a/b/.DS_Store", own(Disposition::skip, "**/.DS_Store")},
        {"** between, zero segments", list({"exclude Users/**/Cache"}), "Users/Cache/x", own(Disposition::skip, "Users/**/Cache")},
        {"trailing ** covers the folder", list({"copy Users/**", "exclude Users"}), "Users", own(Disposition::skip, "Users")},
        {"trailing ** ties with the folder", list({"exclude Users", "copy Users/**"}), "Users", own(Disposition::copy, "Users/**")},
        // Verb classes.
        {"clone is copy", list({"exclude Users", "clone Users/ann"}), "Users/ann", own(Disposition::copy, "Users/ann")},
        {"ignore is exclude", list({"ignore Users"}), "Users/x", own(Disposition::skip, "Users")},
        {"unknown verb does nothing", list({"exclude Users", "Copy Users/ann", "frobnicate Users/ann"}), "Users/ann",
         own(Disposition::skip, "Users")},
        // Optional: its own search, applied at equal or deeper anchors.
        {"optional deeper", list({"exclude Users", "optional Users/ann/Downloads"}), "Users/ann/Downloads/f",
         own(Disposition::optional, "Users/ann/Downloads")},
        {"optional shallower loses", list({"optional Users", "exclude Users/ann"}), "Users/ann", own(Disposition::skip, "Users/ann")},
        {"optional ties win, before", list({"optional Users/ann", "copy Users/ann"}), "Users/ann", own(Disposition::optional, "Users/ann")},
        {"optional ties win, after", list({"exclude Users/ann", "optional Users/ann"}), "Users/ann", own(Disposition::optional, "Users/ann")},
        {"optional alone", list({"optional Volumes/*"}), "Volumes/x/y", own(Disposition::optional, "Volumes/*")},
        {"optional elsewhere", list({"optional Volumes/*"}), "Users", base()},
        {"later optional wins optional tie", list({"optional a @X.dset", "optional a"}), "a", own(Disposition::optional, "a")},
        // Preserve: reported alongside, the source answer untouched.
        {"preserve deeper", list({"preserve_if_absent Users", "preserve Users/ann/Library"}), "Users/ann/Library/x",
         base(), D::DestPreserve{Kind::preserve, Provenance::own(), "Users/ann/Library"}},
        {"preserve shallower applies", list({"preserve_if_absent Users", "preserve Users/ann/Library"}), "Users/bob",
         base(), D::DestPreserve{Kind::preserveIfAbsent, Provenance::own(), "Users"}},
        {"preserve tie, later wins", list({"preserve Users", "preserveifabsent Users @K.dset"}), "Users",
         base(), D::DestPreserve{Kind::preserveIfAbsent, Provenance::rule("K.dset"), "Users"}},
        {"preserve with a skip", list({"exclude .Trashes", "preserve-if-absent .Trashes"}), ".Trashes/501",
         own(Disposition::skip, ".Trashes"), D::DestPreserve{Kind::preserveIfAbsent, Provenance::own(), ".Trashes"}},
        // Items that never match.
        {"empty item", list({"exclude "}), "Users", base()},
        {"slash only", list({"exclude /"}), "Users", base()},
        {"root path", list({"exclude *", "exclude **"}), "", base()},
        {"root as slash", list({"exclude **"}), "/", base()},
        {"bad glob", list({"exclude Users/[ann"}), "Users/[ann", base()},
        {"empty segment", list({"exclude Users//ann"}), "Users/ann", base()},
        {"no directive", {}, "Users", base()},
        {"nothing matches", list({"exclude Applications"}), "Users", base()},
    };
}

TEST(CopyRuleDisposition, Table) {
    for (const Row& row : dispositionTable()) {
        const auto evaluation = D::evaluate(row.directives, row.path);
        EXPECT_EQ(evaluation.source, row.source) << row.name << ": got " << evaluation.source;
        EXPECT_EQ(evaluation.preserve, row.preserve) << row.name;
        // The compiled form gives the same answers, walked or one path at a time.
        const auto compiled = CompiledCopyRules::compile(row.directives);
        EXPECT_EQ(compiled.evaluate(row.path), evaluation) << row.name;
        CopyRuleWalker walker(compiled);
        const RuleCursor c = walker.cursorFor(row.path);
        EXPECT_EQ(walker.disposition(c), row.source.disposition) << row.name;
        EXPECT_EQ(walker.preserveKind(c), row.preserve ? std::optional(row.preserve->kind) : std::nullopt) << row.name;
    }
}

TEST(CopyRuleDisposition, SpecificityAndAncestors) {
    EXPECT_EQ(D::ancestors("Users/ann/Library"), (std::vector<std::string>{"Users", "Users/ann", "Users/ann/Library"}));
    EXPECT_EQ(D::ancestors("//Users///ann/"), (std::vector<std::string>{"Users", "Users/ann"}));
    EXPECT_TRUE(D::ancestors("").empty());
    struct Case {
        const char* item;
        const char* path;
        std::optional<int> specificity;
    } cases[] = {
        {"Users", "Users/ann", 1},
        {"Users/ann/Library", "Users/ann/Library/x", 3},
        {"Users/*/Library", "Users/ann/Library", 1},
        {"Users/**", "Users", 1},
        {"*", "Users", 0},
        {"**/x", "a/x", 0},
        {"Users/ann", "Users", std::nullopt},
        {"", "Users", std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(D::match(Directive{"exclude", c.item, {}}, c.path), c.specificity) << c.item << " vs " << c.path;
    }
    EXPECT_EQ(D::label(Disposition::copy), "Copy");
    EXPECT_EQ(D::label(Disposition::skip), "Skip");
    EXPECT_EQ(D::label(Disposition::optional), "Make optional");
    EXPECT_EQ(D::keepLabel, "Keep");
}

CopyRuleDocument doc(std::vector<std::string> includes, std::initializer_list<std::string_view> lines) {
    CopyRuleDocument d;
    d.includeDirectives = std::move(includes);
    for (auto l : lines) d.directives.push_back(md(l).directive);
    return d;
}

TEST(CopyRuleDisposition, MergeOrderNestingAndProblems) {
    std::map<std::string, CopyRuleDocument, std::less<>> library{
        {"A.dset", doc({"C.dset"}, {"copy a"})},
        {"B.dset", doc({"C.dset", "Gone.dset"}, {"copy b"})},
        {"C.dset", doc({}, {"copy c"})},
        {"Loop1.dset", doc({"Loop2.dset"}, {"copy l1"})},
        {"Loop2.dset", doc({"loop1.DSET"}, {"copy l2"})},
        {"loop1.DSET", doc({"Loop2.dset"}, {"copy l1 again"})},
    };
    auto lookup = [&](std::string_view name) -> const CopyRuleDocument* {
        auto it = library.find(name);
        return it == library.end() ? nullptr : &it->second;
    };
    auto merged = D::merge(doc({"A.dset", "B.dset"}, {"exclude own"}), lookup);
    std::vector<std::string> order;
    for (const auto& m : merged.directives) order.push_back(m.directive.item + "@" + m.origin.value_or("own"));
    // Includes first, each after its own includes; a document reached twice counts once.
    EXPECT_EQ(order, (std::vector<std::string>{"c@C.dset", "a@A.dset", "b@B.dset", "own@own"}));
    ASSERT_EQ(merged.problems.size(), 1u);
    EXPECT_EQ(merged.problems[0].kind, D::IncludeProblem::Kind::missing);
    EXPECT_EQ(merged.problems[0].name, "Gone.dset");
    EXPECT_EQ(merged.problems[0].chain, (std::vector<std::string>{"B.dset"}));
    EXPECT_NE(merged.problems[0].message().find("“Gone.dset”"), std::string::npos);

    // A cycle ends, is reported, and names compare as rule names (case, extension).
    auto looped = D::merge(doc({"Loop1.dset"}, {}), lookup);
    ASSERT_FALSE(looped.problems.empty());
    EXPECT_EQ(looped.problems[0].kind, D::IncludeProblem::Kind::cycle);
    EXPECT_EQ(looped.problems[0].name, "loop1.DSET");

    // A rule that includes itself by its own file name.
    CopyRuleDocument self = doc({"Me.dset"}, {"copy x"});
    self.filename = "me.dset";
    library.emplace("Me.dset", self);
    auto selfMerged = D::merge(self, lookup);
    ASSERT_EQ(selfMerged.problems.size(), 1u);
    EXPECT_EQ(selfMerged.problems[0].kind, D::IncludeProblem::Kind::cycle);

    // A chain deeper than the limit stops there.
    for (int i = 0; i < D::maxIncludeDepth + 3; ++i) {
        library.emplace("Deep" + std::to_string(i) + ".dset", doc({"Deep" + std::to_string(i + 1) + ".dset"}, {}));
    }
    auto deep = D::merge(doc({"Deep0.dset"}, {}), lookup);
    ASSERT_FALSE(deep.problems.empty());
    EXPECT_EQ(deep.problems[0].kind, D::IncludeProblem::Kind::depthLimit);
}

TEST(CopyRuleDeletion, RemovesOwnDirectivesForThePath) {
    CopyRuleDocument d = doc({"Base.dset"}, {"exclude Users/ann", "copy /Users/ann/", "preserve Users/ann", "exclude Users/ann/x",
                                             "frobnicate Users/ann", "optional Users"});
    struct Case {
        const char* path;
        CopyRuleDeletion::Side side;
        std::size_t removed;
    } cases[] = {
        {"Users/ann", CopyRuleDeletion::Side::source, 2},
        {"/Users/ann/", CopyRuleDeletion::Side::destination, 1},
        {"Users/ann", CopyRuleDeletion::Side::all, 4},
        {"Users", CopyRuleDeletion::Side::all, 1},
        {"Users/an", CopyRuleDeletion::Side::all, 0},
        {"/", CopyRuleDeletion::Side::all, 0},
    };
    for (const auto& c : cases) {
        CopyRuleDocument copy = d;
        EXPECT_EQ(CopyRuleDeletion::countDirectives(copy, c.path, c.side), c.removed) << c.path;
        EXPECT_EQ(CopyRuleDeletion::removeDirectives(copy, c.path, c.side), c.removed) << c.path;
        EXPECT_EQ(copy.directives.size(), d.directives.size() - c.removed);
        EXPECT_EQ(CopyRuleDeletion::countDirectives(copy, c.path, c.side), 0u);
        EXPECT_EQ(copy.includeDirectives, d.includeDirectives);
    }
    CopyRuleDocument cleared = d;
    CopyRuleDeletion::removeDirectives(cleared, "Users/ann", CopyRuleDeletion::Side::source);
    EXPECT_EQ(D::resolve(D::ownDirectives(cleared), "Users/ann").matchedItem, "Users");
}

}  // namespace
}  // namespace ql
