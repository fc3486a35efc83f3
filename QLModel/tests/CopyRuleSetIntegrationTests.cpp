#include "QLModel/CompiledCopyRules.h"
#include "QLModel/CopyRuleSet.h"
#include "QLSupport/AtomicFile.h"
#include "QLSupport/Log.h"

#include <gtest/gtest.h>

#include <unistd.h>

namespace ql {
namespace {

namespace fs = std::filesystem;
using Kind = CopyRuleSet::Error::Kind;

class CopyRuleSetTest : public ::testing::Test {
protected:
    void SetUp() override {
        char templ[] = "/tmp/ql-rules-XXXXXX";
        ASSERT_NE(::mkdtemp(templ), nullptr);
        root_ = templ;
        user_ = root_ / "Rules";
        bundle_ = root_ / "StandardScripts";
        fs::create_directories(user_);
        fs::create_directories(bundle_);
        fs::copy_file(fs::path(QL_TEST_SOURCE_DIR) / "fixtures/rules/Exclude all files.dset", bundle_ / "Exclude all files.dset");
    }
    void TearDown() override { fs::remove_all(root_); }

    static void write(const fs::path& path, std::vector<std::string> includes,
                      std::vector<std::pair<std::string, std::string>> directives) {
        CopyRuleDocument doc;
        doc.includeDirectives = std::move(includes);
        for (auto& [token, item] : directives) doc.directives.push_back(Directive{token, item, {}});
        ASSERT_TRUE(AtomicFile::write(path, doc.writeXml().value()));
    }

    CopyRuleSet::Options strict() const { return {{user_, bundle_}, true}; }
    CopyRuleSet::Options lenient() const { return {{user_, bundle_}, false}; }

    fs::path root_, user_, bundle_;
};

TEST_F(CopyRuleSetTest, LoadsIncludesFromTheSearchDirectoriesInOrder) {
    write(user_ / "Mine.dset", {"Exclude all files.dset", "Keep.dset"}, {{"copy", "Users/ann"}});
    write(user_ / "Keep.dset", {"Nested.dset"}, {{"preserve", "Users/ann/Archive"}});
    write(bundle_ / "Keep.dset", {}, {{"copy", "shadowed: the user folder comes first"}});
    write(bundle_ / "Nested.dset", {}, {{"optional", "Users/ann/Downloads"}});

    LogCapture log;
    auto set = CopyRuleSet::load(user_ / "Mine.dset", strict());
    ASSERT_TRUE(set) << set.error().message();
    EXPECT_EQ(set->includes().size(), 3u);
    EXPECT_TRUE(set->notes().empty());
    EXPECT_TRUE(log.contains("[CopyRules] loaded “Mine.dset”: 5 directives with 3 included rule(s)"));

    std::vector<std::string> order;
    for (const auto& m : set->merged().directives) order.push_back(m.directive.token + " " + m.directive.item + " @" + m.origin.value_or("own"));
    EXPECT_EQ(order, (std::vector<std::string>{"exclude * @Exclude all files.dset", "exclude .* @Exclude all files.dset",
                                               "optional Users/ann/Downloads @Nested.dset",
                                               "preserve Users/ann/Archive @Keep.dset", "copy Users/ann @own"}));

    const auto rules = CompiledCopyRules::compile(*set);
    CopyRuleWalker w(rules);
    const RuleCursor users = w.child(w.root(), "Users");
    EXPECT_EQ(w.disposition(users), CopyRuleDisposition::Disposition::skip);
    const RuleCursor ann = w.child(users, "ann");
    EXPECT_EQ(w.disposition(ann), CopyRuleDisposition::Disposition::copy);
    EXPECT_EQ(w.disposition(w.child(ann, "Downloads")), CopyRuleDisposition::Disposition::optional);
    EXPECT_EQ(w.destPreserve(w.child(ann, "Archive"))->provenance, CopyRuleDisposition::Provenance::rule("Keep.dset"));
}

TEST_F(CopyRuleSetTest, WithoutSearchDirectoriesLooksBesideTheRule) {
    write(bundle_ / "Side.dset", {"Exclude all files.dset"}, {{"copy", "a"}});
    auto set = CopyRuleSet::load(bundle_ / "Side.dset", {});
    ASSERT_TRUE(set) << set.error().message();
    EXPECT_EQ(set->includes().size(), 1u);
    EXPECT_EQ(set->includes()[0].path, bundle_ / "Exclude all files.dset");
}

TEST_F(CopyRuleSetTest, MissingAndEscapingIncludesAreRefusedWhenStrictAndSkippedOtherwise) {
    struct Case {
        const char* include;
        Kind kind;
        const char* says;
    } cases[] = {
        {"Gone.dset", Kind::includeNotFound, "none of the rule folders holds"},
        {"../Mine.dset", Kind::includeOutsideSearchPath, "absolute or parent-relative"},
        {"/etc/passwd", Kind::includeOutsideSearchPath, "absolute or parent-relative"},
    };
    for (const auto& c : cases) {
        write(user_ / "Mine.dset", {c.include}, {{"copy", "a"}});
        auto refused = CopyRuleSet::load(user_ / "Mine.dset", strict());
        ASSERT_FALSE(refused) << c.include;
        EXPECT_EQ(refused.error().kind, c.kind) << c.include;
        EXPECT_NE(refused.error().message().find(c.says), std::string::npos) << refused.error().message();
        EXPECT_NE(refused.error().message().find(c.include), std::string::npos);

        auto lenient = CopyRuleSet::load(user_ / "Mine.dset", this->lenient());
        ASSERT_TRUE(lenient) << c.include;
        ASSERT_EQ(lenient->notes().size(), 1u);
        EXPECT_EQ(lenient->merged().directives.size(), 1u);
    }
}

TEST_F(CopyRuleSetTest, CyclesBrokenDocumentsAndDepthAreAlwaysRefused) {
    write(user_ / "Mine.dset", {"Loop.dset"}, {});
    write(user_ / "Loop.dset", {"Mine.dset"}, {});
    auto cycle = CopyRuleSet::load(user_ / "Mine.dset", lenient());
    ASSERT_FALSE(cycle);
    EXPECT_EQ(cycle.error().kind, Kind::includeCycle);

    write(user_ / "Mine.dset", {"Broken.dset"}, {});
    ASSERT_TRUE(AtomicFile::write(user_ / "Broken.dset", "<plist><dict><key>Directives</key><string>x</string></dict></plist>"));
    auto broken = CopyRuleSet::load(user_ / "Mine.dset", lenient());
    ASSERT_FALSE(broken);
    EXPECT_EQ(broken.error().kind, Kind::unreadableDocument);
    EXPECT_NE(broken.error().message().find("Broken.dset"), std::string::npos);

    for (int i = 0; i <= CopyRuleDisposition::maxIncludeDepth + 1; ++i) {
        write(user_ / ("D" + std::to_string(i) + ".dset"), {"D" + std::to_string(i + 1) + ".dset"}, {});
    }
    write(user_ / ("D" + std::to_string(CopyRuleDisposition::maxIncludeDepth + 2) + ".dset"), {}, {});
    auto deep = CopyRuleSet::load(user_ / "D0.dset", strict());
    ASSERT_FALSE(deep);
    EXPECT_EQ(deep.error().kind, Kind::includeTooDeep);

    auto missingRoot = CopyRuleSet::load(user_ / "Nope.dset", strict());
    ASSERT_FALSE(missingRoot);
    EXPECT_EQ(missingRoot.error().kind, Kind::unreadableDocument);
}

}  // namespace
}  // namespace ql
