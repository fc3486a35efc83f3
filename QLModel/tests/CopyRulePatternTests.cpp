#include "QLModel/CopyRuleNaming.h"
#include "QLModel/CopyRulePattern.h"
#include "QLModel/Glob.h"

#include <gtest/gtest.h>

#include <map>

namespace ql {
namespace {

using P = CopyRulePattern;
using Subject = P::Subject;
using Scope = P::Scope;
using Disposition = CopyRuleDisposition::Disposition;

TEST(CopyRulePattern, CompilesAndReads) {
    struct Case {
        Subject subject;
        Scope scope;
        const char* item;
        Disposition disposition;
        const char* summary;
    } cases[] = {
        {Subject::fileType("dmg"), Scope::anywhere(), "**/*.dmg", Disposition::copy, "Copy all Disk Image files anywhere"},
        {Subject::namePrefix("IMG_"), Scope::inFolderAndBelow("", ""), "**/IMG_*", Disposition::skip,
         "Skip files starting with “IMG_” anywhere"},
        {Subject::namePrefix("IMG_"), Scope::inFolderAndBelow("Users/ann/Pictures", "Pictures"),
         "Users/ann/Pictures/**/IMG_*", Disposition::optional, "Make optional files starting with “IMG_” in Pictures and below"},
        {Subject::anyFolderNamed("node_modules"), Scope::inFolder("Users/ann", "ann"), "Users/ann/node_modules",
         Disposition::skip, "Skip every folder named “node_modules” in ann"},
        {Subject::anyFolderNamed("build"), Scope::inFolder("", ""), "build", Disposition::skip,
         "Skip every folder named “build” at the top level"},
        {Subject::folderContents(), Scope::inFolder("Users/ann/Downloads", "Downloads"), "Users/ann/Downloads/*",
         Disposition::skip, "Skip everything in this folder in Downloads"},
        {Subject::folderContents(), Scope::inFolder("", ""), "*", Disposition::copy, "Copy everything in this folder at the top level"},
        {Subject::folderContents(), Scope::inFolderAndBelow("Users", "Users"), "*", Disposition::copy,
         "Copy everything in this folder in Users and below"},
        {Subject::folderContents(), Scope::anywhere(), "*", Disposition::skip, "Skip everything in this folder anywhere"},
        {Subject::fileType("vmdk"), Scope::inFolder("VMs", "VMs"), "VMs/*.vmdk", Disposition::skip, "Skip all .vmdk files in VMs"},
    };
    for (const auto& c : cases) {
        const P p{c.subject, c.scope};
        EXPECT_EQ(p.compile(), c.item);
        EXPECT_EQ(p.summary(c.disposition), c.summary);
        EXPECT_TRUE(Glob::compile(p.compile())) << p.compile();
    }
    EXPECT_EQ((P{Subject::fileType("zip"), Scope::anywhere()}.keepSummary()), "Keep all Zip archives anywhere");
}

TEST(CopyRulePattern, CompiledItemsMatchWhatThePhraseSays) {
    const P images{Subject::namePrefix("IMG_"), Scope::inFolderAndBelow("", "")};
    auto g = Glob::compile(images.compile()).value();
    EXPECT_TRUE(g.matches("IMG_1.heic"));
    EXPECT_TRUE(g.matches("Users/ann/IMG_2.heic"));
    EXPECT_FALSE(g.matches("Users/ann/photo.heic"));
    const P direct{Subject::fileType("log"), Scope::inFolder("var/log", "log")};
    auto d = Glob::compile(direct.compile()).value();
    EXPECT_TRUE(d.matches("var/log/system.log"));
    EXPECT_FALSE(d.matches("var/log/old/system.log"));
}

TEST(CopyRulePattern, TypeLabels) {
    const std::map<std::string, std::pair<std::string, std::string>> table{
        {"dmg", {"Disk Image", "Disk Image files"}},
        {"iso", {"Disc Image", "Disc Image files"}},
        {"sparsebundle", {"Sparse Disk Image", "Sparse Disk Images"}},
        {"pvm", {"Parallels VM", "Parallels virtual machines"}},
        {"dng", {"Camera Raw photo", "Camera Raw photos"}},
        {"raw", {"Camera Raw photo", "Camera Raw photos"}},
        {"jpg", {"JPEG image", "JPEG images"}},
        {"heic", {"HEIC photo", "HEIC photos"}},
        {"psd", {"Photoshop document", "Photoshop documents"}},
        {"mov", {"QuickTime movie", "QuickTime movies"}},
        {"mp4", {"Movie", "Movie files"}},
        {"zip", {"Zip archive", "Zip archives"}},
        {"pkg", {"Installer package", "Installer packages"}},
        {"log", {"Log file", "Log files"}},
        {"JPG", {"JPEG image", "JPEG images"}},
        {"txt", {".txt file", ".txt files"}},
        {"Tar", {".Tar file", ".Tar files"}},
    };
    for (const auto& [ext, labels] : table) {
        EXPECT_EQ(P::typeLabelSingular(ext), labels.first) << ext;
        EXPECT_EQ(P::typeLabelPlural(ext), labels.second) << ext;
    }
}

TEST(CopyRuleNaming, NamesCompareWithoutCaseFormOrExtension) {
    EXPECT_TRUE(CopyRuleNaming::sameName("Photos", "photos"));
    EXPECT_TRUE(CopyRuleNaming::sameName("Café", "CAFE\u0301"));        // composed vs decomposed
    EXPECT_TRUE(CopyRuleNaming::sameName("Straße", "STRASSE"));         // full case folding
    EXPECT_TRUE(CopyRuleNaming::sameName("Photos.dset", "photos"));
    EXPECT_TRUE(CopyRuleNaming::sameName("Photos.DSET", "Photos.dset"));
    EXPECT_FALSE(CopyRuleNaming::sameName("Photos", "Photos 2"));
    EXPECT_FALSE(CopyRuleNaming::sameName("Cafe", "Café"));
    EXPECT_EQ(CopyRuleNaming::displayName("Backup - your data.dset"), "Backup - your data");
    EXPECT_EQ(CopyRuleNaming::untitledName, "Untitled Copy Rule");
}

TEST(CopyRuleNaming, Collisions) {
    using C = CopyRuleNaming::Collision;
    const std::map<std::string, std::vector<std::string>> includes{
        {"Layer A", {"Layer B.dset"}},
        {"Layer B", {"Mine.dset", "Layer A.dset"}},  // and back to A: a cycle that must end
        {"Loop", {"Loop.dset"}},
    };
    CopyRuleNaming::Context context;
    context.builtinNames = {"Backup - all files", "Backup - your data", "Backup - selected folders"};
    context.otherUserRuleNames = {"Photos", "Layer A", "Layer B"};
    context.ownIncludes = {"Loop.dset", "Layer A.dset"};
    context.includesOf = [&](std::string_view name) -> std::optional<std::vector<std::string>> {
        auto it = includes.find(CopyRuleNaming::displayName(name));
        if (it == includes.end()) return std::nullopt;
        return it->second;
    };
    struct Case {
        const char* proposed;
        C expected;
    } cases[] = {
        {"Something new", C::none},
        {"backup - YOUR data", C::builtin},
        {"Backup - all files.dset", C::builtin},
        {"photos", C::existingUserRule},
        {"Layer A", C::existingUserRule},  // taken comes before self-inclusion
        {"Mine", C::selfInclude},          // reached through Layer A → Layer B
        {"MINE.dset", C::selfInclude},
        {"Loop", C::selfInclude},          // a direct include
    };
    for (const auto& c : cases) EXPECT_EQ(CopyRuleNaming::check(c.proposed, context), c.expected) << c.proposed;

    // Without a way to read included documents only direct includes count.
    context.includesOf = nullptr;
    EXPECT_EQ(CopyRuleNaming::check("Mine", context), C::none);
}

TEST(CopyRuleNaming, DuplicateNames) {
    EXPECT_EQ(CopyRuleNaming::duplicateName("Photos", std::vector<std::string>{"Photos"}), "Photos copy");
    EXPECT_EQ(CopyRuleNaming::duplicateName("Photos.dset", std::vector<std::string>{"Photos", "photos COPY"}), "Photos copy 2");
    EXPECT_EQ(CopyRuleNaming::duplicateName("Photos", std::vector<std::string>{"Photos copy", "Photos copy 2", "Photos copy 4"}),
              "Photos copy 3");
}

}  // namespace
}  // namespace ql
