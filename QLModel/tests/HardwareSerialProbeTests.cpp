#include "QLModel/FakeHardwareSerialProbe.h"
#include "QLModel/FakeVolumeEncryptionProbe.h"
#include "QLModel/FlakyHardwareSerialProbe.h"
#include "QLModel/LiveHardwareSerialProbe.h"
#include "QLModel/LiveVolumeEncryptionProbe.h"
#include "QLSupport/Log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

namespace ql {
namespace {

using ::testing::ElementsAre;

struct DecisionCase {
    const char* name;
    SerialRegistryAnswer answer;
    std::optional<std::string> serial;
    std::vector<std::string> lines;
};

void PrintTo(const DecisionCase& c, std::ostream* out) { *out << c.name; }

class SerialDecisions : public ::testing::TestWithParam<DecisionCase> {};

TEST_P(SerialDecisions, explainEveryMissingSerial) {
    const auto& c = GetParam();
    LogCapture capture;
    auto serial = LiveHardwareSerialProbe::decide("disk4", c.answer);
    EXPECT_EQ(serial ? std::optional<std::string>(serial->value) : std::nullopt, c.serial);
    EXPECT_EQ(capture.lines(), c.lines);
}

INSTANTIATE_TEST_SUITE_P(
    SerialProbe, SerialDecisions,
    ::testing::Values(
        DecisionCase{"found", SerialRegistryAnswer::found("Serial Number", "WD-WX12A3456789"), "WD-WX12A3456789", {}},
        DecisionCase{
            "trimmed", SerialRegistryAnswer::found("USB Serial Number", "  575834314134 \n"), "575834314134", {}},
        DecisionCase{"noDictionary",
                     SerialRegistryAnswer::noMatchingDictionary(),
                     std::nullopt,
                     {"[serialProbe] disk4: no matching dictionary — no serial"}},
        DecisionCase{"noService",
                     SerialRegistryAnswer::noService(),
                     std::nullopt,
                     {"[serialProbe] disk4: no IOService for this BSD name — no serial"}},
        DecisionCase{"neither",
                     SerialRegistryAnswer::neitherProperty(),
                     std::nullopt,
                     {"[serialProbe] disk4: neither 'Serial Number' nor 'USB Serial Number' found — no serial"}},
        DecisionCase{"notAString",
                     SerialRegistryAnswer::found("Serial Number", std::nullopt),
                     std::nullopt,
                     {"[serialProbe] disk4: 'Serial Number' present but unusable (non-string or normalized empty)"}},
        DecisionCase{"onlyBlanks",
                     SerialRegistryAnswer::found("Serial Number", std::string(" \t\0 ", 4)),
                     std::nullopt,
                     {"[serialProbe] disk4: 'Serial Number' present but unusable (non-string or normalized empty)"}},
        DecisionCase{"usbBlank",
                     SerialRegistryAnswer::found("USB Serial Number", ""),
                     std::nullopt,
                     {"[serialProbe] disk4: 'USB Serial Number' present but unusable (non-string or normalized "
                      "empty)"}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(FlakyHardwareSerialProbe, failsThenAnswers) {
    FlakyHardwareSerialProbe probe({{"disk2", HardwareSerial{"S1"}}}, 2);
    EXPECT_EQ(probe.serial("disk2"), std::nullopt);
    EXPECT_EQ(probe.serial("disk2"), std::nullopt);
    EXPECT_EQ(probe.serial("disk2"), HardwareSerial{"S1"});
    EXPECT_EQ(probe.serial("disk3"), std::nullopt);
    EXPECT_EQ(probe.callCount(), 4);
}

TEST(FlakyHardwareSerialProbe, countsEveryCallAcrossThreads) {
    FlakyHardwareSerialProbe probe({{"disk2", HardwareSerial{"S1"}}}, 100);
    std::vector<std::thread> threads;
    std::atomic<int> answered{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 50; ++i) {
                if (probe.serial("disk2")) ++answered;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(probe.callCount(), 200);
    EXPECT_EQ(answered.load(), 100);
}

TEST(FakeHardwareSerialProbe, answersFromItsTable) {
    FakeHardwareSerialProbe probe({{"disk2", HardwareSerial{"S1"}}});
    EXPECT_EQ(probe.serial("disk2"), HardwareSerial{"S1"});
    EXPECT_EQ(probe.serial("disk2s1"), std::nullopt);
}

// ---------------------------------------------------------------------------------------------
// Encryption: the four cases.

constexpr const char* kAPFSVolumeGUID = "41504653-0000-11AA-AA11-00306543ECAC";

struct EncryptionCase {
    const char* name;
    std::optional<EncryptionMediaProperties> properties;
    VolumeEncryptionState expected;
};

void PrintTo(const EncryptionCase& c, std::ostream* out) { *out << c.name; }

class EncryptionDecisions : public ::testing::TestWithParam<EncryptionCase> {};

TEST_P(EncryptionDecisions, followTheFourCases) {
    const auto& c = GetParam();
    EXPECT_EQ(LiveVolumeEncryptionProbe::decide("disk3s5", c.properties), c.expected);
}

const Uuid kUnlock = Uuid::parse("7A8B9C0D-1E2F-4A3B-8C4D-5E6F7A8B9C0D").value();

INSTANTIATE_TEST_SUITE_P(
    EncryptionProbe, EncryptionDecisions,
    ::testing::Values(
        EncryptionCase{"notEncrypted",
                       EncryptionMediaProperties{false, true, kAPFSVolumeGUID, kUnlock.text(), "Data", true},
                       {"disk3s5", VolumeEncryptionType::none, false, std::nullopt, std::nullopt}},
        EncryptionCase{"apfsLocked",
                       EncryptionMediaProperties{true, true, kAPFSVolumeGUID, kUnlock.text(), "Data", true},
                       {"disk3s5", VolumeEncryptionType::apfs, true, kUnlock, "Data"}},
        EncryptionCase{"apfsUnlockedLowerCaseContent",
                       EncryptionMediaProperties{true, false, "41504653-0000-11aa-aa11-00306543ecac", kUnlock.text(),
                                                 "Data", true},
                       {"disk3s5", VolumeEncryptionType::apfs, false, kUnlock, "Data"}},
        EncryptionCase{"apfsWithoutContent",
                       EncryptionMediaProperties{true, true, std::nullopt, kUnlock.text(), "Data", true},
                       {"disk3s5", VolumeEncryptionType::unsupported, true, std::nullopt, "Data"}},
        EncryptionCase{"otherContent",
                       EncryptionMediaProperties{true, false, "Apple_HFS", kUnlock.text(), "Vault", true},
                       {"disk3s5", VolumeEncryptionType::unsupported, false, std::nullopt, "Vault"}},
        EncryptionCase{"notAnAPFSObject",
                       EncryptionMediaProperties{true, true, kAPFSVolumeGUID, kUnlock.text(), "Vault", false},
                       {"disk3s5", VolumeEncryptionType::unsupported, true, std::nullopt, "Vault"}},
        EncryptionCase{"noRegistryObject",
                       std::nullopt,
                       {"disk3s5", VolumeEncryptionType::none, false, std::nullopt, std::nullopt}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(FakeVolumeEncryptionProbe, unknownDevicesAreNotEncrypted) {
    FakeVolumeEncryptionProbe probe(
        {{"disk3s5", VolumeEncryptionState{"disk3s5", VolumeEncryptionType::apfs, true, kUnlock, "Data"}}});
    EXPECT_EQ(probe.encryptionState("disk3s5").encType, VolumeEncryptionType::apfs);
    EXPECT_EQ(probe.encryptionState("disk9"),
              (VolumeEncryptionState{"disk9", VolumeEncryptionType::none, false, std::nullopt, std::nullopt}));
}

}  // namespace
}  // namespace ql
