// The volume bridge: every model identity shape survives model -> wire -> model, enums map by
// the wire's own numbering, and each malformed wire value is refused naming its field.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "QLProtocol/transport/VolumeBridge.h"
#include "QLSupport/Uuid.h"

namespace {

using namespace ql;
namespace wire = ql4::transport::v1;
using std::chrono::seconds;

const Uuid kA = *Uuid::parse("E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
const Uuid kB = *Uuid::parse("0B5F7A4E-2D1C-4E8B-9A77-3C1D2E4F5A6B");
const Uuid kC = *Uuid::parse("7C3457EF-0000-11AA-AA11-00306543ECAC");

std::vector<VolumeKey> allKeys() {
    return {
        VolumeKey::gptPartitionGUID(kA),
        VolumeKey::wholeDiskAPFSContainer(kB),
        VolumeKey::wholeDiskVolume(kC),
        VolumeKey::mbrSlice(kA),
        VolumeKey::apmSlice(kB),
        VolumeKey::diskImage(DiskImageHost::localVolume(kA), "Images/Backup.sparsebundle", kC),
        VolumeKey::diskImage(DiskImageHost::networkShare("smb://nas.local/Backups"), "Mac/Backup.dmg", kB),
        VolumeKey::networkShare("smb://nas.local/Share"),
    };
}

std::vector<APFSVolumeRole> allRoles() {
    return {APFSVolumeRole::system(),   APFSVolumeRole::data(), APFSVolumeRole::preboot(),
            APFSVolumeRole::recovery(), APFSVolumeRole::vm(),   APFSVolumeRole::other("Backup"),
            APFSVolumeRole::other("")};
}

std::vector<VolumeTarget> allTargets() {
    std::vector<VolumeTarget> targets = {VolumeTarget::wholeFilesystem(), VolumeTarget::apfsVolumeGroup()};
    for (const auto& role : allRoles()) targets.push_back(VolumeTarget::apfsVolumeByRole(role));
    return targets;
}

VolumeInvariants invariants(PartitionMapType map, FilesystemFamily family, std::optional<std::string> serial) {
    VolumeInvariants out;
    out.partitionSizeBytes = 2'000'398'934'016ULL;
    out.partitionMapType = map;
    out.filesystemFamily = family;
    if (serial) out.hardwareSerial = HardwareSerial{*serial};
    return out;
}

template <typename T>
void expectRoundTrip(const T& value, const std::string& label) {
    SCOPED_TRACE(label);
    auto wireValue = VolumeBridge::toWire(value);
    // Through real bytes, as a peer would see it.
    decltype(wireValue) received;
    ASSERT_TRUE(received.ParseFromString(wireValue.SerializeAsString()));
    auto back = VolumeBridge::fromWire(received);
    ASSERT_TRUE(back.has_value()) << back.error().message();
    EXPECT_EQ(*back, value);
}

TEST(VolumeBridge, EveryKeyTargetRoleAndInvariantShapeRoundTrips) {
    for (const auto& key : allKeys()) expectRoundTrip(key, key.description());
    for (const auto& role : allRoles()) expectRoundTrip(role, role.description());
    for (const auto& target : allTargets()) expectRoundTrip(target, target.description());

    const PartitionMapType maps[] = {
        PartitionMapType::gpt,     PartitionMapType::mbr,       PartitionMapType::apm,    PartitionMapType::wholeDisk,
        PartitionMapType::network, PartitionMapType::diskImage, PartitionMapType::unknown};
    for (auto map : maps) {
        for (auto family : kAllFilesystemFamilies) {
            for (auto serial : {std::optional<std::string>{}, std::optional<std::string>{"S4EWNX0R123456"}}) {
                expectRoundTrip(invariants(map, family, serial),
                                std::string(caseName(map)) + "/" + std::string(caseName(family)));
            }
        }
    }
}

TEST(VolumeBridge, EveryReferenceShapeRoundTrips) {
    const std::vector<std::optional<std::string>> subpaths = {std::nullopt, "Users/ada/Documents"};
    const std::vector<std::optional<ModelDate>> dates = {std::nullopt, ModelDate(seconds(1'700'000'123)),
                                                         ModelDate(seconds(-86'400))};
    const auto targets = allTargets();
    std::size_t i = 0;
    for (const auto& key : allKeys()) {
        for (const auto& subpath : subpaths) {
            for (const auto& date : dates) {
                VolumeRef ref{key,
                              targets[i % targets.size()],
                              invariants(PartitionMapType::gpt, kAllFilesystemFamilies[i % 10],
                                         i % 2 ? std::optional<std::string>("WD-123") : std::nullopt),
                              i % 3 ? "Backup" : "",
                              subpath,
                              date};
                ++i;
                expectRoundTrip(ref, key.description());
            }
        }
    }
}

TEST(VolumeBridge, EnumsUseTheWireNumberingNotTheModelCaseOrder) {
    const std::vector<std::pair<FilesystemFamily, int>> families = {
        {FilesystemFamily::apfsContainer, 1}, {FilesystemFamily::apfs, 2},  {FilesystemFamily::hfsPlus, 3},
        {FilesystemFamily::exfat, 4},         {FilesystemFamily::fat32, 5}, {FilesystemFamily::ntfs, 6},
        {FilesystemFamily::other, 7},         {FilesystemFamily::smb, 8},   {FilesystemFamily::afp, 9},
        {FilesystemFamily::nfs, 10},
    };
    for (auto [family, number] : families) {
        EXPECT_EQ(static_cast<int>(VolumeBridge::toWire(family)), number) << caseName(family);
    }
    const std::vector<std::pair<PartitionMapType, int>> maps = {
        {PartitionMapType::gpt, 1},       {PartitionMapType::mbr, 2},       {PartitionMapType::apm, 3},
        {PartitionMapType::unknown, 4},   {PartitionMapType::wholeDisk, 5}, {PartitionMapType::network, 6},
        {PartitionMapType::diskImage, 7},
    };
    for (auto [map, number] : maps) EXPECT_EQ(static_cast<int>(VolumeBridge::toWire(map)), number) << caseName(map);

    const std::vector<std::pair<APFSVolumeRole, int>> roles = {
        {APFSVolumeRole::system(), 1},   {APFSVolumeRole::data(), 2}, {APFSVolumeRole::preboot(), 3},
        {APFSVolumeRole::recovery(), 4}, {APFSVolumeRole::vm(), 5},   {APFSVolumeRole::other("x"), 6},
    };
    for (const auto& [role, number] : roles) {
        EXPECT_EQ(static_cast<int>(VolumeBridge::toWire(role).kind()), number) << role.description();
    }
    EXPECT_EQ(VolumeBridge::toWire(VolumeTarget::wholeFilesystem()).kind(), wire::VolumeTarget::WHOLE_FILESYSTEM);
    EXPECT_EQ(VolumeBridge::toWire(VolumeTarget::apfsVolumeGroup()).kind(), wire::VolumeTarget::APFS_VOLUME_GROUP);
    EXPECT_EQ(VolumeBridge::toWire(VolumeTarget::apfsVolumeByRole(APFSVolumeRole::data())).kind(),
              wire::VolumeTarget::APFS_VOLUME_BY_ROLE);
}

TEST(VolumeBridge, ModelToWireWritesTheStatedFieldsOnly) {
    auto mbr = VolumeBridge::toWire(VolumeKey::mbrSlice(kA));
    ASSERT_EQ(mbr.kind_case(), wire::VolumeKey::kMbrSlice);
    EXPECT_EQ(mbr.mbr_slice().volume_uuid(), UUIDCodec::encode(kA));
    EXPECT_EQ(mbr.mbr_slice().device_serial(), "");
    EXPECT_EQ(mbr.mbr_slice().partition_index(), 0);

    auto image = VolumeBridge::toWire(VolumeKey::diskImage(DiskImageHost::localVolume(kB), "a.dmg", kC));
    EXPECT_EQ(image.disk_image().host_volume_uuid().size(), 16u);
    EXPECT_EQ(image.disk_image().internal_guid(), UUIDCodec::encode(kC));

    EXPECT_FALSE(VolumeBridge::toWire(VolumeTarget::apfsVolumeGroup()).has_role());
    EXPECT_EQ(VolumeBridge::toWire(APFSVolumeRole::data()).other_name(), "");

    VolumeRef ref{VolumeKey::networkShare("smb://h/s"),
                  VolumeTarget::wholeFilesystem(),
                  invariants(PartitionMapType::network, FilesystemFamily::smb, std::nullopt),
                  "Share",
                  std::nullopt,
                  ModelDate(seconds(1'700'000'000))};
    auto wireRef = VolumeBridge::toWire(ref);
    EXPECT_EQ(wireRef.last_resolved_at_unix_nanos(), 1'700'000'000'000'000'000LL);
    EXPECT_EQ(wireRef.subpath(), "");
    EXPECT_EQ(wireRef.invariants().hardware_serial(), "");
}

TEST(VolumeBridge, WireToModelDropsWhatTheModelDoesNotKeep) {
    wire::VolumeKey mbr;
    mbr.mutable_mbr_slice()->set_device_serial("WD-WCC4E1234567");
    mbr.mutable_mbr_slice()->set_partition_index(3);
    mbr.mutable_mbr_slice()->set_volume_uuid(UUIDCodec::encode(kA));
    EXPECT_EQ(VolumeBridge::fromWire(mbr), VolumeKey::mbrSlice(kA));

    wire::VolumeRef ref =
        VolumeBridge::toWire(VolumeRef{VolumeKey::gptPartitionGUID(kA), VolumeTarget::wholeFilesystem(),
                                       invariants(PartitionMapType::gpt, FilesystemFamily::hfsPlus, std::nullopt),
                                       "Mac HD", std::nullopt, std::nullopt});
    ref.set_last_resolved_at_unix_nanos(1'700'000'000'999'999'999LL);  // instants keep whole seconds
    auto model = VolumeBridge::fromWire(ref);
    ASSERT_TRUE(model.has_value());
    EXPECT_EQ(model->lastResolvedAt, ModelDate(seconds(1'700'000'000)));
    EXPECT_EQ(model->subpath, std::nullopt);

    wire::VolumeTarget group;
    group.set_kind(wire::VolumeTarget::APFS_VOLUME_GROUP);
    group.mutable_role()->set_kind(wire::APFSVolumeRole::DATA);
    EXPECT_EQ(VolumeBridge::fromWire(group), VolumeTarget::apfsVolumeGroup());
}

using RefEdit = std::function<void(wire::VolumeRef&)>;

struct MalformedCase {
    const char* label;
    RefEdit edit;  // applied to a valid reference
    VolumeBridgeError expected;
};

wire::VolumeRef validRef() {
    return VolumeBridge::toWire(VolumeRef{VolumeKey::gptPartitionGUID(kA),
                                          VolumeTarget::apfsVolumeByRole(APFSVolumeRole::data()),
                                          invariants(PartitionMapType::gpt, FilesystemFamily::apfsContainer, "S1"),
                                          "Macintosh HD", "Users", ModelDate(seconds(1'700'000'000))});
}

RefEdit onKey(std::function<void(wire::VolumeKey&)> edit) {
    return [edit](wire::VolumeRef& ref) { edit(*ref.mutable_key()); };
}

// Edits a valid disk-image key hosted on a local volume.
RefEdit onImage(std::function<void(wire::DiskImageKey&)> edit) {
    return onKey([edit](wire::VolumeKey& key) {
        auto* image = key.mutable_disk_image();
        image->set_internal_guid(UUIDCodec::encode(kC));
        image->set_host_volume_uuid(UUIDCodec::encode(kB));
        image->set_relative_path("Images/Backup.sparsebundle");
        edit(*image);
    });
}

template <typename Enum>
Enum number(int n) {
    return static_cast<Enum>(n);
}

TEST(VolumeBridge, EachMalformedWireValueFailsWithItsPathAndReason) {
    using E = VolumeBridgeError;
    using Key = wire::VolumeKey;
    using Image = wire::DiskImageKey;
    using Ref = wire::VolumeRef;
    // clang-format off
    const std::vector<MalformedCase> cases = {
        {"key with no member", onKey([](Key& k) { k.Clear(); }), E::missingField("VolumeKey.kind")},
        {"reference with no key", [](Ref& r) { r.clear_key(); }, E::missingField("VolumeKey.kind")},
        {"15-byte partition GUID", onKey([](Key& k) { k.set_gpt_partition_guid(std::string(15, '\x01')); }),
         E::malformedUUID("VolumeKey.gpt_partition_guid", 15)},
        {"empty partition GUID", onKey([](Key& k) { k.set_gpt_partition_guid(""); }),
         E::malformedUUID("VolumeKey.gpt_partition_guid", 0)},
        {"17-byte container UUID", onKey([](Key& k) { k.set_whole_disk_apfs_container_uuid(std::string(17, 'x')); }),
         E::malformedUUID("VolumeKey.whole_disk_apfs_container_uuid", 17)},
        {"short whole-disk volume UUID", onKey([](Key& k) { k.set_whole_disk_volume_uuid("abc"); }),
         E::malformedUUID("VolumeKey.whole_disk_volume_uuid", 3)},
        {"MBR slice without volume UUID", onKey([](Key& k) { k.mutable_mbr_slice()->set_device_serial("WD"); }),
         E::malformedUUID("MBRSliceKey.volume_uuid", 0)},
        {"APM slice with short UUID", onKey([](Key& k) { k.mutable_apm_slice()->set_volume_uuid(std::string(8, 'x')); }),
         E::malformedUUID("APMSliceKey.volume_uuid", 8)},
        {"share without URL", onKey([](Key& k) { k.mutable_network_share(); }), E::missingField("NetworkShareKey.url")},
        {"image without host", onImage([](Image& i) { i.clear_host(); }), E::missingField("DiskImageKey.host")},
        {"image on a share with empty URL", onImage([](Image& i) { i.set_host_share_url(""); }),
         E::missingField("DiskImageKey.host_share_url")},
        {"image on a volume with short UUID", onImage([](Image& i) { i.set_host_volume_uuid(std::string(12, 'x')); }),
         E::malformedUUID("DiskImageKey.host_volume_uuid", 12)},
        {"image without relative path", onImage([](Image& i) { i.clear_relative_path(); }),
         E::missingField("DiskImageKey.relative_path")},
        {"image without internal GUID", onImage([](Image& i) { i.clear_internal_guid(); }),
         E::malformedUUID("DiskImageKey.internal_guid", 0)},
        {"image with long internal GUID", onImage([](Image& i) { i.set_internal_guid(std::string(20, 'x')); }),
         E::malformedUUID("DiskImageKey.internal_guid", 20)},
        {"target unspecified", [](Ref& r) { r.mutable_target()->set_kind(wire::VolumeTarget::KIND_UNSPECIFIED); },
         E::unspecifiedEnum("VolumeTarget.Kind")},
        {"reference with no target", [](Ref& r) { r.clear_target(); }, E::unspecifiedEnum("VolumeTarget.Kind")},
        {"target kind 7", [](Ref& r) { r.mutable_target()->set_kind(number<wire::VolumeTarget::Kind>(7)); },
         E::unspecifiedEnum("VolumeTarget.Kind(7)")},
        {"by role without role", [](Ref& r) { r.mutable_target()->clear_role(); }, E::missingField("VolumeTarget.role")},
        {"role unspecified", [](Ref& r) { r.mutable_target()->mutable_role()->set_kind(wire::APFSVolumeRole::UNSPECIFIED); },
         E::unspecifiedEnum("APFSVolumeRole.Known")},
        {"role 9", [](Ref& r) { r.mutable_target()->mutable_role()->set_kind(number<wire::APFSVolumeRole::Known>(9)); },
         E::unspecifiedEnum("APFSVolumeRole.Known(9)")},
        {"map type unspecified", [](Ref& r) { r.mutable_invariants()->set_partition_map_type(wire::PMT_UNSPECIFIED); },
         E::unspecifiedEnum("PartitionMapType")},
        {"reference with no invariants", [](Ref& r) { r.clear_invariants(); }, E::unspecifiedEnum("PartitionMapType")},
        {"map type 99", [](Ref& r) { r.mutable_invariants()->set_partition_map_type(number<wire::PartitionMapType>(99)); },
         E::unspecifiedEnum("PartitionMapType(99)")},
        {"family unspecified", [](Ref& r) { r.mutable_invariants()->set_filesystem_family(wire::FF_UNSPECIFIED); },
         E::unspecifiedEnum("FilesystemFamily")},
        {"family 11", [](Ref& r) { r.mutable_invariants()->set_filesystem_family(number<wire::FilesystemFamily>(11)); },
         E::unspecifiedEnum("FilesystemFamily(11)")},
        {"family -1", [](Ref& r) { r.mutable_invariants()->set_filesystem_family(number<wire::FilesystemFamily>(-1)); },
         E::unspecifiedEnum("FilesystemFamily(-1)")},
    };
    // clang-format on
    ASSERT_TRUE(VolumeBridge::fromWire(validRef()).has_value());
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        wire::VolumeRef sent = validRef();
        c.edit(sent);
        wire::VolumeRef received;
        ASSERT_TRUE(received.ParseFromString(sent.SerializeAsString()));
        auto result = VolumeBridge::fromWire(received);
        ASSERT_FALSE(result.has_value());
        EXPECT_EQ(result.error(), c.expected) << result.error().message();
        EXPECT_NE(result.error().message().find(c.expected.path), std::string::npos);
    }
}

TEST(VolumeBridge, ErrorSentencesNameTheFieldAndTheByteCount) {
    EXPECT_EQ(VolumeBridgeError::malformedUUID("VolumeKey.gpt_partition_guid", 15).message(),
              "The volume identity field VolumeKey.gpt_partition_guid is not a UUID: it holds 15 bytes instead of 16.");
    EXPECT_EQ(VolumeBridgeError::missingField("VolumeKey.kind").message(),
              "The volume identity lacks the required field VolumeKey.kind.");
    EXPECT_EQ(VolumeBridgeError::unspecifiedEnum("VolumeTarget.Kind(7)").message(),
              "The volume identity holds an unspecified or unknown value of VolumeTarget.Kind(7).");
}

}  // namespace
