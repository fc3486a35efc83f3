#include "QLModel/CopyRuleDocument.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace ql {
namespace {

using ParseError = CopyRuleDocument::ParseError;

std::filesystem::path fixture(const std::string& name) {
    return std::filesystem::path(QL_TEST_SOURCE_DIR) / "fixtures" / "rules" / name;
}

Directive directive(std::string token, std::string item, PlistDictionary extra = {}) {
    return Directive{std::move(token), std::move(item), std::move(extra)};
}

TEST(CopyRuleDocument, ReadsEveryFieldAndKeepsUnknownKeysInOrder) {
    auto doc = CopyRuleDocument::readFile(fixture("Round trip.dset"));
    ASSERT_TRUE(doc) << doc.error().message();
    EXPECT_EQ(doc->filename, "Round trip.dset");
    EXPECT_EQ(doc->className, "UserRule");
    EXPECT_EQ(doc->ruleDescription, "Everything but caches — and “Downloads”");
    EXPECT_EQ(doc->visible, false);
    EXPECT_EQ(doc->includeDirectives, (std::vector<std::string>{"Exclude all files.dset", "Keep the trash.dset"}));
    ASSERT_EQ(doc->directives.size(), 4u);
    EXPECT_EQ(doc->directives[0],
              directive("exclude", "Users/*/Library/Caches", {{"Comment", "Rebuilt by apps on demand"}}));
    EXPECT_EQ(doc->directives[1].token, "optional");
    EXPECT_EQ(doc->directives[1].item, "/Users/ann/Downloads/");
    EXPECT_EQ(*doc->directives[1].extraKeys.find("Weight"), PlistValue(0.75));
    EXPECT_EQ(doc->directives[3].token, "frobnicate");  // unknown verbs are kept

    std::vector<std::string> keys;
    for (const auto& [k, v] : doc->extraTopLevelKeys) keys.push_back(k);
    EXPECT_EQ(keys, (std::vector<std::string>{"Version", "Created", "Thumbnail", "Big", "Ratio", "Enabled", "History"}));
    EXPECT_TRUE(doc->extraTopLevelKeys.find("Big")->isUnsignedInteger());
    EXPECT_TRUE(doc->extraTopLevelKeys.find("Created")->isDate());
    EXPECT_TRUE(doc->extraTopLevelKeys.find("Thumbnail")->isData());
}

TEST(CopyRuleDocument, WritesBackEqualFromXmlAndBinary) {
    for (const char* name : {"Round trip.dset", "Round trip binary.dset", "Exclude all files.dset"}) {
        auto doc = CopyRuleDocument::readFile(fixture(name));
        ASSERT_TRUE(doc) << name << ": " << doc.error().message();
        auto xml = doc->writeXml();
        ASSERT_TRUE(xml) << xml.error().message();
        auto again = CopyRuleDocument::read(*xml, doc->filename);
        ASSERT_TRUE(again) << again.error().message();
        EXPECT_EQ(*again, *doc) << name;
        // Writing is stable: the second generation is byte-for-byte the first.
        EXPECT_EQ(again->writeXml().value(), *xml);
    }
    // The binary file holds the same document as the XML one.
    auto xmlDoc = CopyRuleDocument::readFile(fixture("Round trip.dset")).value();
    auto binDoc = CopyRuleDocument::readFile(fixture("Round trip binary.dset")).value();
    binDoc.filename = xmlDoc.filename;
    EXPECT_EQ(binDoc, xmlDoc);
}

TEST(CopyRuleDocument, WritesKnownKeysFirstThenExtras) {
    CopyRuleDocument doc;
    doc.extraTopLevelKeys.set("Zebra", 1);
    doc.directives.push_back(directive("copy", "Users", {{"Comment", "keep me"}}));
    const PlistValue root = doc.toPlist();
    std::vector<std::string> keys;
    for (const auto& [k, v] : *root.asDict()) keys.push_back(k);
    // Absent optional fields are not written; Directives and Include Directives always are.
    EXPECT_EQ(keys, (std::vector<std::string>{"Directives", "Include Directives", "Zebra"}));
    const PlistValue& entry = root.find("Directives")->asArray()->front();
    std::vector<std::string> entryKeys;
    for (const auto& [k, v] : *entry.asDict()) entryKeys.push_back(k);
    EXPECT_EQ(entryKeys, (std::vector<std::string>{"Directive", "Item", "Comment"}));

    doc.className = "C";
    doc.ruleDescription = "D";
    doc.visible = true;
    keys.clear();
    const PlistValue full = doc.toPlist();
    for (const auto& [k, v] : *full.asDict()) keys.push_back(k);
    EXPECT_EQ(keys, (std::vector<std::string>{"Class", "Description", "Visible", "Directives", "Include Directives", "Zebra"}));
}

TEST(CopyRuleDocument, KnownKeysOfAnotherKindAreKeptAsExtras) {
    const PlistValue root = PlistDictionary{{"Class", 7}, {"Visible", "yes"}, {"Description", PlistValue::Array{}}};
    auto doc = CopyRuleDocument::fromPlist(root);
    ASSERT_TRUE(doc);
    EXPECT_FALSE(doc->className);
    EXPECT_FALSE(doc->visible);
    EXPECT_EQ(*doc->extraTopLevelKeys.find("Class"), PlistValue(7));
    auto again = CopyRuleDocument::fromPlist(doc->toPlist());
    EXPECT_EQ(*again, *doc);
}

TEST(CopyRuleDocument, RefusesMalformedDocuments) {
    struct Case {
        const char* name;
        PlistValue root;
        ParseError::Kind kind;
        const char* detail;
    } cases[] = {
        {"array root", PlistValue::Array{}, ParseError::Kind::notADictionary, ""},
        {"string root", "hello", ParseError::Kind::notADictionary, ""},
        {"string directive", PlistDictionary{{"Directives", PlistValue::Array{"exclude *"}}},
         ParseError::Kind::unsupportedPlistType, "Directives element: string"},
        {"integer directive", PlistDictionary{{"Directives", PlistValue::Array{PlistDictionary{}, 3}}},
         ParseError::Kind::unsupportedPlistType, "Directives element: integer"},
        {"directives not an array", PlistDictionary{{"Directives", PlistDictionary{}}},
         ParseError::Kind::unsupportedPlistType, "Directives: dictionary"},
        {"token not a string", PlistDictionary{{"Directives", PlistValue::Array{PlistDictionary{{"Directive", true}}}}},
         ParseError::Kind::unsupportedPlistType, "Directives element 0 “Directive”: boolean"},
        {"include not a string", PlistDictionary{{"Include Directives", PlistValue::Array{"a.dset", 2.5}}},
         ParseError::Kind::unsupportedPlistType, "Include Directives element: real"},
        {"includes not an array", PlistDictionary{{"Include Directives", "a.dset"}},
         ParseError::Kind::unsupportedPlistType, "Include Directives: string"},
    };
    for (const auto& c : cases) {
        auto doc = CopyRuleDocument::fromPlist(c.root);
        ASSERT_FALSE(doc) << c.name;
        EXPECT_EQ(doc.error().kind, c.kind) << c.name;
        EXPECT_EQ(doc.error().detail, c.detail) << c.name;
        EXPECT_FALSE(doc.error().message().empty());
    }
    auto garbage = CopyRuleDocument::read("not a property list");
    ASSERT_FALSE(garbage);
    EXPECT_EQ(garbage.error().kind, ParseError::Kind::unreadable);
    auto missing = CopyRuleDocument::readFile(fixture("No such rule.dset"));
    ASSERT_FALSE(missing);
    EXPECT_NE(missing.error().message().find("No such rule.dset"), std::string::npos);
}

TEST(CopyRuleDocument, ExcludeAllNormalisation) {
    const Directive star = directive("exclude", "*");
    const Directive dot = directive("exclude", ".*");
    const Directive other = directive("copy", "Users");
    struct Case {
        const char* name;
        std::vector<Directive> directives;
        std::vector<std::string> includes;
        bool changes;
    } cases[] = {
        {"pair then more", {star, dot, other}, {"Mine.dset"}, true},
        {"pair in the other order", {dot, star}, {"Mine.dset"}, true},
        {"no include", {star, dot, other}, {}, false},
        {"already included", {star, dot}, {"Mine.dset", "Exclude all files.dset"}, false},
        {"extra key", {directive("exclude", "*", {{"Comment", "x"}}), dot}, {"Mine.dset"}, false},
        {"same item twice", {star, star}, {"Mine.dset"}, false},
        {"not at the top", {other, star, dot}, {"Mine.dset"}, false},
        {"ignore, not exclude", {directive("ignore", "*"), dot}, {"Mine.dset"}, false},
        {"only one", {star}, {"Mine.dset"}, false},
    };
    for (const auto& c : cases) {
        CopyRuleDocument doc;
        doc.directives = c.directives;
        doc.includeDirectives = c.includes;
        const CopyRuleDocument before = doc;
        EXPECT_EQ(doc.normalizeExcludeAll(), c.changes) << c.name;
        if (c.changes) {
            EXPECT_EQ(doc.includeDirectives.front(), "Exclude all files.dset") << c.name;
            EXPECT_EQ(doc.includeDirectives.size(), before.includeDirectives.size() + 1) << c.name;
            EXPECT_EQ(std::vector<Directive>(before.directives.begin() + 2, before.directives.end()), doc.directives);
        } else {
            EXPECT_EQ(doc, before) << c.name;
        }
    }
}

TEST(Directive, VerbsAndNormalisedItems) {
    using Verb = Directive::Verb;
    struct Case {
        const char* token;
        Verb verb;
    } verbs[] = {
        {"copy", Verb::copy},           {"clone", Verb::copy},
        {"exclude", Verb::skip},        {"ignore", Verb::skip},
        {"optional", Verb::optional},   {"preserve", Verb::preserve},
        {"preserve_if_absent", Verb::preserveIfAbsent}, {"preserveifabsent", Verb::preserveIfAbsent},
        {"preserve-if-absent", Verb::preserveIfAbsent}, {"Copy", Verb::unknown},
        {"EXCLUDE", Verb::unknown},     {"", Verb::unknown},
    };
    for (const auto& c : verbs) EXPECT_EQ(Directive::verbOf(c.token), c.verb) << c.token;
    EXPECT_EQ(Directive::normalizedItem("/Users/ann/"), "Users/ann");
    EXPECT_EQ(Directive::normalizedItem("///"), "");
    EXPECT_EQ(Directive::normalizedItem("a//b"), "a//b");
}

}  // namespace
}  // namespace ql
