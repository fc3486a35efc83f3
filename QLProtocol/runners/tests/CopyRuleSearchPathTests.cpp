#include "QLProtocol/runners/CopyRuleSearchPath.h"

#include <gtest/gtest.h>

namespace {

using ql::CopyRuleSearchPath;
using List = std::vector<std::string>;

TEST(CopyRuleSearchPath, UserFoldersThenStandardRules) {
    struct Case {
        std::optional<std::string> home;
        std::optional<std::string> resources;
        List expected;
    };
    const Case cases[] = {
        {"/Users/ann", "/Applications/Quillo.app/Contents/Resources",
         {"/Users/ann/Library/Application Support/Quillo!/Rules",
          "/Users/ann/Library/Application Support/Quillo!/Rules/Copy Scripts",
          "/Applications/Quillo.app/Contents/Resources/CopyScripts/StandardScripts"}},
        {"/home/ann", std::nullopt,
         {"/home/ann/Library/Application Support/Quillo!/Rules",
          "/home/ann/Library/Application Support/Quillo!/Rules/Copy Scripts"}},
        {"", "/usr/share/quillo", {"/usr/share/quillo/CopyScripts/StandardScripts"}},
        {std::nullopt, "", {}},
        {std::nullopt, std::nullopt, {}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(CopyRuleSearchPath::directories(c.home, c.resources), c.expected)
            << c.home.value_or("<none>") << " " << c.resources.value_or("<none>");
    }
}

TEST(CopyRuleSearchPath, InstalledResourcesSitBelowThePrefix) {
    EXPECT_EQ(CopyRuleSearchPath::installedResources("/usr"), "/usr/share/quillo");
    EXPECT_EQ(CopyRuleSearchPath::installedResources("/opt/quillo/"), "/opt/quillo/share/quillo");
    EXPECT_EQ(CopyRuleSearchPath::installedResources("/"), "/share/quillo");
    EXPECT_EQ(CopyRuleSearchPath::directories(std::nullopt, CopyRuleSearchPath::installedResources("/usr/local")),
              List({"/usr/local/share/quillo/CopyScripts/StandardScripts"}));
#ifndef __APPLE__
    // On Linux the standard rules are installed data below the build's install prefix.
    auto resources = CopyRuleSearchPath::bundleResources();
    ASSERT_TRUE(resources.has_value());
    EXPECT_TRUE(resources->ends_with("/share/quillo")) << *resources;
#endif
}

}  // namespace
