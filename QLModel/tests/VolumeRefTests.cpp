#include "QLModel/VolumeRef.h"

#include <gtest/gtest.h>

#include <functional>
#include <unordered_set>

namespace ql {
namespace {

Uuid uuid(std::string_view text) { return Uuid::parse(text).value(); }

const Uuid kA = uuid("E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
const Uuid kB = uuid("0F8FAD5B-D9CB-469F-A165-70867728950E");

VolumeRef plainRef() {
    return VolumeRef{VolumeKey::gptPartitionGUID(kA), VolumeTarget::wholeFilesystem(),
                     VolumeInvariants{500'107'862'016ULL, PartitionMapType::gpt, FilesystemFamily::hfsPlus, std::nullopt},
                     "Backup", std::nullopt, std::nullopt};
}

struct RoundTripCase {
    const char* name;
    VolumeRef ref;
};

std::vector<RoundTripCase> roundTripCases() {
    std::vector<RoundTripCase> cases;
    auto with = [](auto change) {
        VolumeRef r = plainRef();
        change(r);
        return r;
    };
    cases.push_back({"gpt", plainRef()});
    cases.push_back({"containerGroup", with([](VolumeRef& r) {
                         r.key = VolumeKey::wholeDiskAPFSContainer(kB);
                         r.target = VolumeTarget::apfsVolumeGroup();
                         r.invariants.hardwareSerial = HardwareSerial{"WD-WX12A3456789"};
                     })});
    cases.push_back({"wholeDiskVolume", with([](VolumeRef& r) { r.key = VolumeKey::wholeDiskVolume(kB); })});
    cases.push_back({"mbr", with([](VolumeRef& r) {
                         r.key = VolumeKey::mbrSlice(kA);
                         r.invariants.partitionMapType = PartitionMapType::mbr;
                         r.invariants.filesystemFamily = FilesystemFamily::exfat;
                     })});
    cases.push_back({"apm", with([](VolumeRef& r) { r.key = VolumeKey::apmSlice(kA); })});
    cases.push_back({"imageOnLocal", with([](VolumeRef& r) {
                         r.key = VolumeKey::diskImage(DiskImageHost::localVolume(kB), "Images/Work.sparsebundle", kA);
                         r.invariants.partitionMapType = PartitionMapType::diskImage;
                     })});
    cases.push_back({"imageOnShare", with([](VolumeRef& r) {
                         r.key = VolumeKey::diskImage(DiskImageHost::networkShare("smb://nas.local/Backups"),
                                                      "Mac/Clone.dmg", kA);
                     })});
    cases.push_back({"share", with([](VolumeRef& r) {
                         r.key = VolumeKey::networkShare("smb://nas.local/Backups");
                         r.invariants = {0, PartitionMapType::network, FilesystemFamily::smb, std::nullopt};
                     })});
    cases.push_back({"roleData", with([](VolumeRef& r) {
                         r.target = VolumeTarget::apfsVolumeByRole(APFSVolumeRole::data());
                         r.invariants.filesystemFamily = FilesystemFamily::apfs;
                     })});
    cases.push_back({"roleOther", with([](VolumeRef& r) {
                         r.target = VolumeTarget::apfsVolumeByRole(APFSVolumeRole::other("Xart"));
                     })});
    cases.push_back({"folderResolved", with([](VolumeRef& r) {
                         r.subpath = "Users/ann/Documents";
                         r.lastResolvedAt = ModelDate{std::chrono::seconds{1'795'234'740}};
                         r.displayName = "Naïve “Disk” — 2";
                     })});
    for (auto role : {APFSVolumeRole::system(), APFSVolumeRole::preboot(), APFSVolumeRole::recovery(),
                      APFSVolumeRole::vm()}) {
        cases.push_back({"roles", with([&](VolumeRef& r) { r.target = VolumeTarget::apfsVolumeByRole(role); })});
    }
    for (auto family : kAllFilesystemFamilies) {
        cases.push_back({"families", with([&](VolumeRef& r) { r.invariants.filesystemFamily = family; })});
    }
    return cases;
}

TEST(VolumeRefJson, EveryShapeRoundTripsThroughTextEqual) {
    for (const auto& c : roundTripCases()) {
        auto text = dumpJson(toJson(c.ref));
        auto decoded = fromJsonText<VolumeRef>(text);
        ASSERT_TRUE(decoded) << c.name << ": " << decoded.error().description() << "\n" << text;
        EXPECT_EQ(*decoded, c.ref) << c.name << "\n" << text;
        EXPECT_EQ(std::hash<VolumeRef>{}(*decoded), std::hash<VolumeRef>{}(c.ref)) << c.name;
    }
}

TEST(VolumeRefJson, TaggedVariantsUseOneMemberObjectsWithUnlabelledPayloadUnderUnderscoreZero) {
    struct Case {
        Json actual;
        const char* expected;
    };
    const Case cases[] = {
        {toJson(VolumeKey::gptPartitionGUID(kA)), R"({"gptPartitionGUID":{"_0":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F"}})"},
        {toJson(VolumeKey::wholeDiskAPFSContainer(kA)),
         R"({"wholeDiskAPFSContainer":{"containerUUID":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F"}})"},
        {toJson(VolumeKey::apmSlice(kA)), R"({"apmSlice":{"volumeUUID":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F"}})"},
        {toJson(VolumeKey::diskImage(DiskImageHost::localVolume(kB), "a/b.dmg", kA)),
         R"({"diskImage":{"host":{"localVolume":{"volumeUUID":"0F8FAD5B-D9CB-469F-A165-70867728950E"}},)"
         R"("internalGUID":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F","relativePath":"a/b.dmg"}})"},
        {toJson(VolumeKey::networkShare("smb://h/s")), R"({"networkShare":{"url":"smb://h/s"}})"},
        {toJson(VolumeTarget::wholeFilesystem()), R"({"wholeFilesystem":{}})"},
        {toJson(VolumeTarget::apfsVolumeByRole(APFSVolumeRole::data())), R"({"apfsVolumeByRole":{"_0":{"data":{}}}})"},
        {toJson(VolumeTarget::apfsVolumeByRole(APFSVolumeRole::other("Hardware"))),
         R"({"apfsVolumeByRole":{"_0":{"other":{"_0":"Hardware"}}}})"},
        {toJson(VolumeInvariants{7, PartitionMapType::wholeDisk, FilesystemFamily::apfsContainer, HardwareSerial{"S1"}}),
         R"({"filesystemFamily":"apfsContainer","hardwareSerial":{"value":"S1"},"partitionMapType":"wholeDisk",)"
         R"("partitionSizeBytes":7})"},
    };
    for (const auto& c : cases) EXPECT_EQ(dumpJson(c.actual), c.expected);
}

TEST(VolumeRefJson, OptionalFieldsAreOmittedAndDatesAreWholeSecondIso8601) {
    auto json = toJson(plainRef());
    EXPECT_FALSE(json.contains("subpath"));
    EXPECT_FALSE(json.contains("lastResolvedAt"));
    EXPECT_FALSE(json["invariants"].contains("hardwareSerial"));

    auto ref = plainRef();
    ref.lastResolvedAt = modelDate(Iso8601::parse("2026-11-21T04:39:00.75Z").value());
    EXPECT_EQ(toJson(ref)["lastResolvedAt"], "2026-11-21T04:39:00Z");

    auto text = dumpJson(toJson(plainRef()));
    text.replace(text.find("\"target\""), 0, R"("lastResolvedAt":"2026-11-21T05:39:00.123+01:00",)");
    auto decoded = fromJsonText<VolumeRef>(text);
    ASSERT_TRUE(decoded) << decoded.error().description();
    EXPECT_EQ(Iso8601::format(*decoded->lastResolvedAt), "2026-11-21T04:39:00Z");
}

TEST(VolumeRefJson, LowerCaseUuidTextIsReadAndWrittenBackUpperCase) {
    auto key = fromJsonText<VolumeKey>(R"({"mbrSlice":{"volumeUUID":"e621e1f8-c36c-495a-93fc-0c247a3e6e5f"}})");
    ASSERT_TRUE(key);
    EXPECT_EQ(*key, VolumeKey::mbrSlice(kA));
}

struct FailureCase {
    const char* json;
    ModelDecodeError::Kind kind;
    const char* path;
};

TEST(VolumeRefJson, MalformedKeysAndTargetsFailWithTheirError) {
    const FailureCase keyCases[] = {
        {R"({})", ModelDecodeError::Kind::invalidNumberOfKeys, ""},
        {R"({"mbrSlice":{"volumeUUID":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F"},"apmSlice":{"volumeUUID":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F"}})",
         ModelDecodeError::Kind::invalidNumberOfKeys, ""},
        {R"({"floppy":{}})", ModelDecodeError::Kind::unknownCase, ""},
        {R"({"gptPartitionGUID":{}})", ModelDecodeError::Kind::missingField, "gptPartitionGUID._0"},
        {R"({"gptPartitionGUID":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F"})", ModelDecodeError::Kind::typeMismatch,
         "gptPartitionGUID"},
        {R"({"gptPartitionGUID":{"_0":"E621E1F8"}})", ModelDecodeError::Kind::invalidValue, "gptPartitionGUID._0"},
        {R"({"diskImage":{"host":{},"relativePath":"x","internalGUID":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F"}})",
         ModelDecodeError::Kind::invalidNumberOfKeys, "diskImage.host"},
        {R"({"diskImage":{"host":{"networkShare":{"url":"smb://h/s"}},"internalGUID":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F"}})",
         ModelDecodeError::Kind::missingField, "diskImage.relativePath"},
        {R"({"networkShare":{"url":7}})", ModelDecodeError::Kind::typeMismatch, "networkShare.url"},
        {R"([])", ModelDecodeError::Kind::typeMismatch, ""},
    };
    for (const auto& c : keyCases) {
        auto decoded = fromJsonText<VolumeKey>(c.json);
        ASSERT_FALSE(decoded) << c.json;
        EXPECT_EQ(decoded.error().kind, c.kind) << c.json << ": " << decoded.error().description();
        EXPECT_EQ(decoded.error().path, c.path) << c.json;
    }
    const FailureCase targetCases[] = {
        {R"({"wholeFilesystem":{},"apfsVolumeGroup":{}})", ModelDecodeError::Kind::invalidNumberOfKeys, ""},
        {R"({"apfsVolumeByRole":{"_0":{}}})", ModelDecodeError::Kind::invalidNumberOfKeys, "apfsVolumeByRole._0"},
        {R"({"apfsVolumeByRole":{"_0":{"other":{}}}})", ModelDecodeError::Kind::missingField,
         "apfsVolumeByRole._0.other._0"},
        {R"({"apfsVolumeByRole":{}})", ModelDecodeError::Kind::missingField, "apfsVolumeByRole._0"},
        {R"({"apfsVolumeByRole":{"_0":{"swap":{}}}})", ModelDecodeError::Kind::unknownCase, "apfsVolumeByRole._0"},
    };
    for (const auto& c : targetCases) {
        auto decoded = fromJsonText<VolumeTarget>(c.json);
        ASSERT_FALSE(decoded) << c.json;
        EXPECT_EQ(decoded.error().kind, c.kind) << c.json << ": " << decoded.error().description();
        EXPECT_EQ(decoded.error().path, c.path) << c.json;
    }
}

TEST(VolumeRefJson, WrongMemberCountReadsTheExactSentence) {
    for (const char* json : {R"({})", R"({"wholeFilesystem":{},"apfsVolumeGroup":{}})"}) {
        auto decoded = fromJsonText<VolumeTarget>(json);
        ASSERT_FALSE(decoded);
        EXPECT_EQ(decoded.error().message(), "Invalid number of keys found, expected one.");
    }
}

TEST(VolumeRefJson, MalformedRecordsFailAtTheFieldThatIsWrong) {
    auto good = toJson(plainRef());
    struct Case {
        const char* name;
        std::function<void(Json&)> damage;
        ModelDecodeError::Kind kind;
        const char* path;
    };
    const Case cases[] = {
        {"no key", [](Json& j) { j.erase("key"); }, ModelDecodeError::Kind::missingField, "key"},
        {"no displayName", [](Json& j) { j.erase("displayName"); }, ModelDecodeError::Kind::missingField,
         "displayName"},
        {"negative size", [](Json& j) { j["invariants"]["partitionSizeBytes"] = -1; },
         ModelDecodeError::Kind::invalidValue, "invariants.partitionSizeBytes"},
        {"fractional size", [](Json& j) { j["invariants"]["partitionSizeBytes"] = 1.5; },
         ModelDecodeError::Kind::typeMismatch, "invariants.partitionSizeBytes"},
        {"unknown map", [](Json& j) { j["invariants"]["partitionMapType"] = "GPT"; },
         ModelDecodeError::Kind::unknownCase, "invariants.partitionMapType"},
        {"unknown family", [](Json& j) { j["invariants"]["filesystemFamily"] = "hfs+"; },
         ModelDecodeError::Kind::unknownCase, "invariants.filesystemFamily"},
        {"serial without value", [](Json& j) { j["invariants"]["hardwareSerial"] = Json::object(); },
         ModelDecodeError::Kind::missingField, "invariants.hardwareSerial.value"},
        {"bad date", [](Json& j) { j["lastResolvedAt"] = "yesterday"; }, ModelDecodeError::Kind::invalidValue,
         "lastResolvedAt"},
        {"numeric date", [](Json& j) { j["lastResolvedAt"] = 815'000'000; }, ModelDecodeError::Kind::typeMismatch,
         "lastResolvedAt"},
        {"subpath not text", [](Json& j) { j["subpath"] = false; }, ModelDecodeError::Kind::typeMismatch, "subpath"},
    };
    for (const auto& c : cases) {
        Json damaged = good;
        c.damage(damaged);
        auto decoded = fromJson<VolumeRef>(damaged);
        ASSERT_FALSE(decoded) << c.name;
        EXPECT_EQ(decoded.error().kind, c.kind) << c.name << ": " << decoded.error().description();
        EXPECT_EQ(decoded.error().path, c.path) << c.name;
    }
    EXPECT_EQ(fromJsonText<VolumeRef>("{\"key\":").error().kind, ModelDecodeError::Kind::invalidJSON);
}

TEST(VolumeRefEquality, DisplayFactsCountForEqualityButNotForSameVolume) {
    auto a = plainRef();
    auto renamed = a;
    renamed.displayName = "Renamed";
    auto resolved = a;
    resolved.lastResolvedAt = ModelDate{std::chrono::seconds{1}};
    auto otherTarget = a;
    otherTarget.target = VolumeTarget::apfsVolumeGroup();
    auto otherKind = a;
    otherKind.key = VolumeKey::wholeDiskVolume(kA);  // same UUID, different case

    EXPECT_NE(a, renamed);
    EXPECT_NE(a, resolved);
    EXPECT_TRUE(a.sameVolume(renamed));
    EXPECT_TRUE(a.sameVolume(resolved));
    EXPECT_FALSE(a.sameVolume(otherTarget));
    EXPECT_FALSE(a.sameVolume(otherKind));
    EXPECT_NE(APFSVolumeRole::other("data"), APFSVolumeRole::data());

    std::unordered_set<VolumeRef> set{a, renamed, resolved, otherTarget, otherKind, a};
    EXPECT_EQ(set.size(), 5u);
    std::unordered_set<VolumeKey> keys{VolumeKey::mbrSlice(kA), VolumeKey::apmSlice(kA), VolumeKey::mbrSlice(kA)};
    EXPECT_EQ(keys.size(), 2u);
}

TEST(VolumeKeyKinds, PredicatesAndDescriptionsNameTheCase) {
    auto image = VolumeKey::diskImage(DiskImageHost::networkShare("smb://h/s"), "x.dmg", kA);
    EXPECT_TRUE(image.isDiskImage());
    EXPECT_FALSE(image.isNetworkShare());
    EXPECT_TRUE(VolumeKey::networkShare("afp://h/s").isNetworkShare());
    EXPECT_EQ(image.caseName(), "diskImage");
    EXPECT_EQ(image.description(), "diskImage(networkShare(smb://h/s), x.dmg, E621E1F8-C36C-495A-93FC-0C247A3E6E5F)");
    EXPECT_EQ(VolumeTarget::apfsVolumeByRole(APFSVolumeRole::other("X")).description(), "apfsVolumeByRole(other(X))");
}

}  // namespace
}  // namespace ql
