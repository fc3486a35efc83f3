// The engine's view of the rules, built from the pattern flags alone (no document): verdicts
// per child, carried down the tree, and refusals of broken patterns.

#include "qlcopy/RuleSetLoader.h"

#include <gtest/gtest.h>

namespace ql {
namespace {

std::unique_ptr<SelectionRules> load(EngineOptions o) {
    auto rules = RuleSetLoader::load(o);
    EXPECT_TRUE(rules) << rules.error().detail;
    return rules ? std::move(*rules) : nullptr;
}

TEST(RuleSelection, WithoutRulesEverythingIsSelected) {
    auto rules = load(EngineOptions{});
    ASSERT_TRUE(rules);
    auto root = rules->rootScope();
    EXPECT_EQ(root->verdict("anything", true), PathVerdict{});
    EXPECT_EQ(root->enter("a")->enter("b")->verdict("c", false), PathVerdict{});
}

TEST(RuleSelection, PatternFlagsBecomeVerdictsDownTheTree) {
    EngineOptions o;
    o.preserveIfAbsent = {"Archive/**"};
    o.optionalPatterns = {"/private/var/vm/"};
    o.retainOnError = {"Library/Caches/*.db"};
    auto rules = load(o);
    ASSERT_TRUE(rules);
    auto root = rules->rootScope();

    PathVerdict archive = root->verdict("Archive", true);
    EXPECT_TRUE(archive.selected);
    EXPECT_EQ(archive.preserve, PreserveKind::preserveIfAbsent);
    EXPECT_EQ(root->enter("Archive")->enter("2023")->verdict("x.pdf", false).preserve, PreserveKind::preserveIfAbsent);
    EXPECT_EQ(root->verdict("Archived", true).preserve, PreserveKind::none);

    auto vm = root->enter("private")->enter("var");
    EXPECT_FALSE(vm->verdict("log", true).optional);
    EXPECT_TRUE(vm->verdict("vm", true).optional);
    EXPECT_TRUE(vm->enter("vm")->verdict("swapfile0", false).optional) << "a folder's directive covers its contents";

    auto caches = root->enter("Library")->enter("Caches");
    EXPECT_TRUE(caches->verdict("index.db", false).retainOnError);
    EXPECT_FALSE(caches->verdict("index.txt", false).retainOnError);
    EXPECT_TRUE(caches->enter("store.db")->verdict("inside", false).retainOnError);
    EXPECT_TRUE(caches->verdict("index.txt", false).selected);
}

TEST(RuleSelection, TheFingerprintFollowsThePatterns) {
    EngineOptions a, b;
    a.preserveIfAbsent = {"x"};
    b.preserveIfAbsent = {"y"};
    EXPECT_NE(load(a)->fingerprint(), load(b)->fingerprint());
    EXPECT_EQ(load(a)->fingerprint(), load(a)->fingerprint());
    EXPECT_NE(load(a)->fingerprint(), load(EngineOptions{})->fingerprint());
}

TEST(RuleSelection, BrokenPatternsAndMissingDocumentsAreRefused) {
    EngineOptions unclosed;
    unclosed.optionalPatterns = {"Users/[abc"};
    auto r1 = RuleSetLoader::load(unclosed);
    ASSERT_FALSE(r1);
    EXPECT_NE(r1.error().detail.find("Users/[abc"), std::string::npos) << r1.error().detail;

    EngineOptions empty;
    empty.retainOnError = {"/"};
    EXPECT_FALSE(RuleSetLoader::load(empty));

    EngineOptions missing;
    missing.scriptPath = "/no/such/rule.dset";
    auto r3 = RuleSetLoader::load(missing);
    ASSERT_FALSE(r3);
    EXPECT_FALSE(r3.error().detail.empty());
}

}  // namespace
}  // namespace ql
