#include "QLSupport/Uuid.h"

#include <gtest/gtest.h>

#include <set>

namespace ql {
namespace {

TEST(Uuid, MintedUuidsAreVersion4AndUnique) {
    std::set<std::string> seen;
    for (int i = 0; i < 1000; ++i) {
        Uuid u = Uuid::mint();
        std::string t = u.text();
        EXPECT_EQ(t[14], '4');
        EXPECT_TRUE(t[19] == '8' || t[19] == '9' || t[19] == 'A' || t[19] == 'B') << t;
        EXPECT_TRUE(seen.insert(t).second);
    }
}

TEST(Uuid, ParsesEitherCaseAndWritesUpperCase) {
    auto u = Uuid::parse("e621e1f8-c36c-495a-93fc-0c247a3e6e5f");
    ASSERT_TRUE(u);
    EXPECT_EQ(u->text(), "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
    EXPECT_EQ(Uuid::parse(u->text()).value(), *u);
}

TEST(Uuid, RefusesAnythingButTheCanonicalShape) {
    for (const char* bad : {"", "E621E1F8C36C495A93FC0C247A3E6E5F", "{E621E1F8-C36C-495A-93FC-0C247A3E6E5F}",
                            "E621E1F8-C36C-495A-93FC-0C247A3E6E5", "E621E1F8-C36C-495A-93FC-0C247A3E6E5G",
                            "E621E1F8-C36C-495A-93FC+0C247A3E6E5F", " E621E1F8-C36C-495A-93FC-0C247A3E6E5F"}) {
        EXPECT_FALSE(Uuid::parse(bad)) << bad;
    }
}

TEST(UUIDCodec, RoundTripsSixteenBytesAndRefusesOtherLengths) {
    Uuid u = Uuid::mint();
    auto bytes = UUIDCodec::encode(u);
    ASSERT_EQ(bytes.size(), 16u);
    EXPECT_EQ(UUIDCodec::decode(bytes).value(), u);
    auto err = UUIDCodec::decode(bytes.substr(0, 15));
    ASSERT_FALSE(err);
    EXPECT_EQ(err.error().count, 15u);
    EXPECT_EQ(UUIDCodec::decode("").error().count, 0u);
    EXPECT_EQ(UUIDCodec::decode(bytes + "x").error().count, 17u);
}

}  // namespace
}  // namespace ql
