#include "QLProtocol/server/LiveSourceServiceProvider.h"
#include "QLProtocol/server/FakeVolumeLister.h"
#include "QLProtocol/server/LiveVolumeLister.h"
#include "QLProtocol/server/MountInfo.h"
#include "QLProtocol/server/VolumeListPolicy.h"
#include "QLProtocol/server/VolumeOSVersion.h"
#include "QLProtocol/server/VolumeWatchDiff.h"
#include "QLProtocol/server/tests/SourceServiceTestSupport.h"
#include "QLSupport/Log.h"

#include <asio/experimental/awaitable_operators.hpp>
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace ql {
namespace {

using testing::listedVolume;
using testing::SourceTestLoop;

// ---- The mount table -----------------------------------------------------------------------

TEST(MountInfo, ParsesTheKernelsFieldsWithAndWithoutOptionalFields) {
    const char* text =
        "36 35 98:0 /mnt1 /mnt/parent rw,noatime master:1 - ext3 /dev/root rw,errors=continue\n"
        "27 1 254:0 / / rw,relatime - ext4 /dev/vda rw,discard\n"
        "40 27 0:33 /@home /home rw shared:5 master:2 - btrfs /dev/sda2 rw,subvol=/@home\n"
        "41 27 0:34 / /mnt/with\\040space\\134back rw - tmpfs tmp\\011fs rw\n";
    int malformed = -1;
    auto entries = MountInfo::parse(text, &malformed);
    EXPECT_EQ(malformed, 0);
    ASSERT_EQ(entries.size(), 4u);

    EXPECT_EQ(entries[0].mountID, 36);
    EXPECT_EQ(entries[0].parentID, 35);
    EXPECT_EQ(entries[0].major, 98u);
    EXPECT_EQ(entries[0].minor, 0u);
    EXPECT_EQ(entries[0].root, "/mnt1");
    EXPECT_EQ(entries[0].mountPoint, "/mnt/parent");
    EXPECT_EQ(entries[0].fsType, "ext3");
    EXPECT_EQ(entries[0].source, "/dev/root");
    EXPECT_EQ(entries[0].superOptions, "rw,errors=continue");

    EXPECT_EQ(entries[1].mountPoint, "/");
    EXPECT_EQ(entries[1].source, "/dev/vda");

    EXPECT_EQ(entries[2].fsType, "btrfs") << "two optional fields before the separator";
    EXPECT_EQ(entries[2].superOptions, "rw,subvol=/@home");

    EXPECT_EQ(entries[3].mountPoint, "/mnt/with space\\back");
    EXPECT_EQ(entries[3].source, "tmp\tfs");
}

TEST(MountInfo, SkipsAndCountsMalformedLines) {
    const char* text =
        "garbage\n"
        "\n"
        "12 1 8:1 / /data rw - ext4 /dev/sda1 rw\n"
        "13 1 8:x / /bad rw - ext4 /dev/sda2 rw\n"
        "14 1 8:3 / /nosep rw ext4 /dev/sda3 rw\n"
        "15 1 8:4 / /short rw -\n";
    int malformed = 0;
    auto entries = MountInfo::parse(text, &malformed);
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].mountPoint, "/data");
    EXPECT_EQ(malformed, 4);
}

TEST(MountInfo, UnescapesOnlyCompleteOctalEscapes) {
    EXPECT_EQ(MountInfo::unescape("a\\040b"), "a b");
    EXPECT_EQ(MountInfo::unescape("a\\04"), "a\\04");
    EXPECT_EQ(MountInfo::unescape("a\\x40"), "a\\x40");
    EXPECT_EQ(MountInfo::unescape("\\012end"), "\nend");
}

// ---- Which volumes are listed -----------------------------------------------------------------

TEST(VolumeListPolicy, LeavesOutSystemSimulatorRecoveryReplicationAndBackupVolumes) {
    struct Case {
        const char* name;
        const char* mount;
        const char* media;
        const char* content;
        const char* fsType;
        const char* expected;  // nullptr: listed
    };
    const Case cases[] = {
        {"Macintosh HD", "/", "", "Apple_APFS", "apfs", nullptr},
        {"Data", "/System/Volumes/Data", "", "", "apfs", nullptr},
        {"Preboot", "/System/Volumes/Preboot", "", "", "apfs", "systemVolume"},
        {"VM", "/System/Volumes/VM", "", "", "apfs", "systemVolume"},
        {"iOS 17", "/Library/Developer/CoreSimulator/Volumes/iOS_21A", "", "", "apfs", "simulator"},
        {"Thing", "/Volumes/Thing", "Virtual Interface", "", "apfs", "virtualInterface"},
        {"Recovery", "/Volumes/Recovery", "", "Apple_APFS_Recovery", "apfs", "systemPartition"},
        {"Dump", "/Volumes/Dump", "", "Apple_KernelCoreDump", "apfs", "systemPartition"},
        {"ESP", "/boot/efi", "", "C12A7328-F81F-11D2-BA4B-00A0C93EC93B", "vfat", "systemPartition"},
        {"ESP", "/mnt/esp", "", "c12a7328-f81f-11d2-ba4b-00a0c93ec93b", "vfat", "systemPartition"},
        {"boot", "/boot", "", "", "ext4", "systemPartition"},
        {"bootloader", "/bootloader", "", "", "ext4", nullptr},
        {"ASRDataVolume_12345", "/Volumes/ASRDataVolume_12345", "", "", "apfs", "replicationVolume"},
        {"Backups of Mac", "/Volumes/Backups of Mac", "", "", "apfs", "backupVolume"},
        {"Backups", "/Volumes/Backups", "", "", "apfs", nullptr},
        {"core22", "/snap/core22/1122", "", "", "squashfs", "applicationImage"},
        {"Image", "/mnt/image", "Disk Image", "", "ext4", nullptr},
    };
    for (const auto& c : cases) {
        auto v = listedVolume(c.name, c.mount, "sda1", {}, c.fsType);
        v.mediaName = c.media;
        v.content = c.content;
        auto why = VolumeListPolicy::exclusion(v);
        if (c.expected) {
            EXPECT_EQ(why.value_or("listed"), c.expected) << c.name << " at " << c.mount;
        } else {
            EXPECT_FALSE(why) << c.name << " at " << c.mount << " left out as " << *why;
        }
    }
}

TEST(VolumeListPolicy, LogTextNamesEveryListedVolume) {
    EXPECT_EQ(VolumeListPolicy::logText({}), "returning 0 volume(s): ");
    EXPECT_EQ(VolumeListPolicy::logText({listedVolume("Root filesystem", "/", "vda"),
                                         listedVolume("Backup", "/mnt/b", "loop0")}),
              "returning 2 volume(s): Root filesystem, Backup");
}

TEST(LiveVolumeLister, NamesAndCaseSensitivityByMountPointAndType) {
    EXPECT_EQ(LiveVolumeLister::fallbackName("/"), "Root filesystem");
    EXPECT_EQ(LiveVolumeLister::fallbackName("/mnt/backup"), "backup");
    EXPECT_EQ(LiveVolumeLister::fallbackName("/mnt/backup/"), "backup");
    EXPECT_EQ(LiveVolumeLister::caseSensitivity("ext4"), std::optional<bool>(true));
    EXPECT_EQ(LiveVolumeLister::caseSensitivity("btrfs"), std::optional<bool>(true));
    EXPECT_EQ(LiveVolumeLister::caseSensitivity("vfat"), std::optional<bool>(false));
    EXPECT_EQ(LiveVolumeLister::caseSensitivity("exfat"), std::optional<bool>(false));
    EXPECT_EQ(LiveVolumeLister::caseSensitivity("cifs"), std::nullopt);
    EXPECT_EQ(LiveVolumeLister::caseSensitivity("hfsplus"), std::nullopt);
}

// ---- Watching: the difference between two listings ----------------------------------------------

wire::VolumeSummary summary(std::string name, std::string mount, std::string device, std::string uuid = {},
                            std::string url = {}) {
    auto v = listedVolume(std::move(name), std::move(mount), std::move(device), std::move(uuid)).summary;
    v.set_network_url(std::move(url));
    return v;
}

std::string describe(const std::vector<wire::VolumeEvent>& events) {
    std::string out;
    for (const auto& e : events) {
        if (!out.empty()) out += " ";
        if (e.has_appeared()) out += "+" + e.appeared().name();
        if (e.has_changed()) out += "~" + e.changed().name();
        if (e.has_disappeared()) out += "-" + e.disappeared().bsd_device();
    }
    return out;
}

TEST(VolumeWatchDiff, ReportsAppearedDisappearedAndChangedVolumes) {
    const auto root = summary("Root", "/", "vda", "U1");
    const auto stick = summary("Stick", "/mnt/stick", "sdb1", "U2");
    const auto share = summary("share", "/mnt/share", "", {}, "smb://nas/share");
    auto renamed = stick;
    renamed.set_name("Stick2");
    auto moved = stick;
    moved.set_mount_point("/media/stick");
    auto fuller = stick;
    fuller.set_used_bytes(999);
    fuller.set_free_bytes(1);
    auto otherDevice = stick;  // same filesystem, now seen through another device node
    otherDevice.set_bsd_device("sdc1");
    const auto noUUID = summary("Plain", "/mnt/plain", "loop3");
    auto noUUIDRemounted = noUUID;
    noUUIDRemounted.set_mount_point("/mnt/again");

    struct Case {
        const char* what;
        std::vector<wire::VolumeSummary> before, after;
        const char* expected;
    };
    const Case cases[] = {
        {"nothing changed", {root, stick}, {root, stick}, ""},
        {"a volume appears", {root}, {root, stick}, "+Stick"},
        {"a volume goes away", {root, stick}, {root}, "-sdb1"},
        {"a share appears", {root}, {root, share}, "+share"},
        {"renamed", {root, stick}, {root, renamed}, "~Stick2"},
        {"remounted elsewhere", {root, stick}, {root, moved}, "~Stick"},
        {"only space changed", {root, stick}, {root, fuller}, ""},
        {"same UUID through another device", {stick}, {otherDevice}, "~Stick"},
        {"no UUID: keyed by device", {noUUID}, {noUUIDRemounted}, "~Plain"},
        {"swap: removals first", {root, stick}, {root, share}, "-sdb1 +share"},
        {"from nothing", {}, {root, stick}, "+Root +Stick"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(describe(VolumeWatchDiff::between(c.before, c.after)), c.expected) << c.what;
    }
}

TEST(VolumeWatchDiff, DisappearedCarriesTheVolumesIdentity) {
    auto events = VolumeWatchDiff::between({summary("Stick", "/mnt/stick", "sdb1", "UUIDBYTES", {})}, {});
    ASSERT_EQ(events.size(), 1u);
    auto v = summary("x", "/", "sdb1", "UUIDBYTES");
    v.set_partition_guid("PG");
    events = VolumeWatchDiff::between({v}, {});
    EXPECT_EQ(events[0].disappeared().volume_uuid(), "UUIDBYTES");
    EXPECT_EQ(events[0].disappeared().partition_guid(), "PG");
    EXPECT_EQ(events[0].disappeared().bsd_device(), "sdb1");
}

// ---- The wire form of a resolution ---------------------------------------------------------------

TEST(SourceServiceResolution, EveryVerdictHasItsWireForm) {
    CurrentVolumeState state;
    state.bsdDevice = "sdb1";
    state.partitionGUID = *Uuid::parse("11111111-2222-3333-4444-555555555555");
    PlainVolumeState plain;
    plain.bsdDevice = "sdb1";
    plain.name = "Backup";
    plain.mountPoint = "/mnt/backup";
    plain.totalBytes = 100;
    plain.usedBytes = 40;
    plain.freeBytes = 60;
    plain.format = FilesystemFamily::exfat;
    state.standaloneVolume = plain;
    state.observedAt = fromUnixNanos(1'700'000'000'000'000'000);

    auto ok = LiveSourceServiceProvider::toWire(Resolution::ok(state));
    EXPECT_EQ(ok.resolution(), wire::GetVolumeInfoResponse::RES_OK);
    EXPECT_EQ(ok.state().bsd_device(), "sdb1");
    EXPECT_EQ(ok.state().partition_guid().size(), 16u);
    EXPECT_EQ(ok.state().plain_volume().name(), "Backup");
    EXPECT_EQ(ok.state().plain_volume().mount_point(), "/mnt/backup");
    EXPECT_EQ(ok.state().plain_volume().free_bytes(), 60u);
    EXPECT_EQ(ok.state().plain_volume().format(), wire::FF_EXFAT);
    EXPECT_EQ(ok.state().observed_at_unix_nanos(), 1'700'000'000'000'000'000);
    EXPECT_FALSE(ok.state().has_apfs_container());

    auto suspicious = LiveSourceServiceProvider::toWire(
        Resolution::suspicious(state, {{"partitionSizeBytes", "100", "200"}}));
    EXPECT_EQ(suspicious.resolution(), wire::GetVolumeInfoResponse::RES_SUSPICIOUS);
    ASSERT_EQ(suspicious.mismatches_size(), 1);
    EXPECT_EQ(suspicious.mismatches(0).field(), "partitionSizeBytes");
    EXPECT_EQ(suspicious.mismatches(0).expected(), "100");
    EXPECT_EQ(suspicious.mismatches(0).actual(), "200");

    struct Case {
        UnresolvedReason reason;
        wire::UnresolvedReason wireReason;
        const char* detail;
    };
    const Case cases[] = {
        {UnresolvedReason::volumeMissing(), wire::UR_VOLUME_MISSING, ""},
        {UnresolvedReason::notAttached(), wire::UR_NOT_ATTACHED, ""},
        {UnresolvedReason::probeFailed("Couldn't read every disk while looking for this volume"), wire::UR_PROBE_FAILED,
         "Couldn't read every disk while looking for this volume"},
        {UnresolvedReason::unsupportedKey("no serial probe"), wire::UR_UNSUPPORTED_KEY, "no serial probe"},
        {UnresolvedReason::imageHostUnmounted("sdc2"), wire::UR_NOT_ATTACHED,
         "the drive holding the disk image is not mounted"},
        {UnresolvedReason::imageFileMissing(), wire::UR_VOLUME_MISSING, "disk image file not found"},
    };
    for (const auto& c : cases) {
        auto out = LiveSourceServiceProvider::toWire(Resolution::unresolved(c.reason));
        EXPECT_EQ(out.resolution(), wire::GetVolumeInfoResponse::RES_UNRESOLVED) << c.reason.description();
        EXPECT_EQ(out.unresolved_reason(), c.wireReason) << c.reason.description();
        EXPECT_EQ(out.unresolved_detail(), c.detail) << c.reason.description();
        EXPECT_FALSE(out.has_state());
    }
}

// ---- Small rules ---------------------------------------------------------------------------------

TEST(VolumeOSVersion, ReadsOSReleaseValuesWithOrWithoutQuotes) {
    const std::string text = "PRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\nVERSION_ID=\"12\"\nID=debian\n"
                             "BUILD_ID='2024-01-02'\nVERSION_CODENAME=bookworm\n";
    EXPECT_EQ(VolumeOSVersion::osReleaseValue(text, "VERSION_ID"), "12");
    EXPECT_EQ(VolumeOSVersion::osReleaseValue(text, "ID"), "debian");
    EXPECT_EQ(VolumeOSVersion::osReleaseValue(text, "BUILD_ID"), "2024-01-02");
    EXPECT_EQ(VolumeOSVersion::osReleaseValue(text, "VERSION"), "");
}

TEST(SourceServiceBrowsing, PackagesAreFoldersWithABundleExtension) {
    EXPECT_TRUE(LiveSourceServiceProvider::isPackageName("Safari.app"));
    EXPECT_TRUE(LiveSourceServiceProvider::isPackageName("Notes.RTFD"));
    EXPECT_TRUE(LiveSourceServiceProvider::isPackageName("Photos Library.photoslibrary"));
    EXPECT_FALSE(LiveSourceServiceProvider::isPackageName("report.pdf"));
    EXPECT_FALSE(LiveSourceServiceProvider::isPackageName(".app"));
    EXPECT_FALSE(LiveSourceServiceProvider::isPackageName("app"));
}

// ---- The provider over a fake lister and a fake mount-table watch ------------------------------

struct ProviderWorld {
    SourceTestLoop loop;
    std::shared_ptr<FakeVolumeLister> lister = std::make_shared<FakeVolumeLister>();
    std::shared_ptr<FakeMountTableWatch> watch = std::make_shared<FakeMountTableWatch>();
    std::shared_ptr<LiveSourceServiceProvider> provider;

    ProviderWorld() {
        LiveSourceServiceProvider::Collaborators c;
        c.lister = lister;
        c.mountWatch = watch;
        provider = std::make_shared<LiveSourceServiceProvider>(loop.executor(), c);
    }
    ~ProviderWorld() { loop.run(provider->shutdown()); }

    // The next event, or a description of why there was none within a second.
    std::string nextEvent(ServerStream<wire::VolumeEvent>& stream) { return loop.run(awaitEvent(&stream)); }

    static asio::awaitable<std::string> awaitEvent(ServerStream<wire::VolumeEvent>* stream) {
        using namespace asio::experimental::awaitable_operators;
        asio::steady_timer timer(co_await asio::this_coro::executor, std::chrono::seconds(1));
        auto result = co_await (stream->next() || timer.async_wait(asio::use_awaitable));
        if (result.index() == 1) co_return "timeout";
        auto& event = std::get<0>(result);
        if (!event) co_return "end";
        co_return describe({*event});
    }
};

TEST(LiveSourceServiceProvider, ListsTheListedVolumesWithTheLogLine) {
    ProviderWorld world;
    world.lister->set({listedVolume("Root filesystem", "/", "vda", "U1"),
                       listedVolume("ESP", "/boot/efi", "vda1", "U2", "vfat"),
                       listedVolume("Backup", "/mnt/backup", "loop0", "U3")});
    LogCapture log;
    auto listed = world.loop.run(world.provider->listVolumes(ql::CallContext::ofThisProcess(), {}));
    ASSERT_TRUE(listed) << listed.error().message;
    ASSERT_EQ(listed->volumes_size(), 2);
    EXPECT_EQ(listed->volumes(0).name(), "Root filesystem");
    EXPECT_EQ(listed->volumes(1).name(), "Backup");
    EXPECT_TRUE(log.contains("[ListVolumes] returning 2 volume(s): Root filesystem, Backup")) << ::testing::PrintToString(log.lines());
}

TEST(LiveSourceServiceProvider, AFailedListingIsAnErrorNeverAnEmptyList) {
    ProviderWorld world;
    world.lister->fail("could not read the mount table /proc/self/mountinfo: Permission denied");
    auto listed = world.loop.run(world.provider->listVolumes(ql::CallContext::ofThisProcess(), {}));
    ASSERT_FALSE(listed);
    EXPECT_EQ(listed.error().message,
              "could not list the volumes: could not read the mount table /proc/self/mountinfo: Permission denied");
}

TEST(LiveSourceServiceProvider, WatchSendsTheChangesOfEachMountTableChangeToEverySubscriber) {
    ProviderWorld world;
    world.lister->set({listedVolume("Root", "/", "vda", "U1")});
    auto first = world.loop.run(world.provider->watchVolumes(ql::CallContext::ofThisProcess(), {}));
    auto second = world.loop.run(world.provider->watchVolumes(ql::CallContext::ofThisProcess(), {}));
    ASSERT_TRUE(first && second);
    EXPECT_EQ(world.watch->starts(), 1) << "one mount-table watch serves every subscriber";

    world.lister->set({listedVolume("Root", "/", "vda", "U1"), listedVolume("Stick", "/mnt/stick", "sdb1", "U2")});
    world.watch->fire();
    EXPECT_EQ(world.nextEvent(*first), "+Stick");
    EXPECT_EQ(world.nextEvent(*second), "+Stick");

    world.lister->set({listedVolume("Root", "/", "vda", "U1")});
    world.watch->fire();
    EXPECT_EQ(world.nextEvent(*first), "-sdb1");
    EXPECT_EQ(world.nextEvent(*second), "-sdb1");

    // A change that changes nothing the client sees sends nothing.
    world.watch->fire();
    EXPECT_EQ(world.nextEvent(*first), "timeout");
}

TEST(LiveSourceServiceProvider, TheWatchStopsWhenTheLastSubscriberGoesAway) {
    ProviderWorld world;
    world.lister->set({listedVolume("Root", "/", "vda", "U1")});
    {
        auto stream = world.loop.run(world.provider->watchVolumes(ql::CallContext::ofThisProcess(), {}));
        ASSERT_TRUE(stream);
        EXPECT_TRUE(world.watch->running());
    }
    for (int i = 0; i < 100 && world.watch->running(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_FALSE(world.watch->running());

    // A new subscriber starts it again, against a fresh listing.
    world.lister->set({listedVolume("Root", "/", "vda", "U1"), listedVolume("Stick", "/mnt/stick", "sdb1", "U2")});
    auto stream = world.loop.run(world.provider->watchVolumes(ql::CallContext::ofThisProcess(), {}));
    ASSERT_TRUE(stream);
    EXPECT_EQ(world.watch->starts(), 2);
    world.watch->fire();
    EXPECT_EQ(world.nextEvent(*stream), "timeout") << "the stick was there when the watch began";
}

TEST(LiveSourceServiceProvider, ShutdownEndsEveryWatchStream) {
    ProviderWorld world;
    auto stream = world.loop.run(world.provider->watchVolumes(ql::CallContext::ofThisProcess(), {}));
    ASSERT_TRUE(stream);
    world.loop.run(world.provider->shutdown());
    EXPECT_EQ(world.nextEvent(*stream), "end");
    EXPECT_FALSE(world.watch->running());
}

TEST(LiveSourceServiceProvider, WithoutAResolverVolumeInfoIsNotAvailable) {
    ProviderWorld world;
    auto info = world.loop.run(world.provider->getVolumeInfo(ql::CallContext::ofThisProcess(), {}));
    ASSERT_FALSE(info);
    EXPECT_EQ(info.error().description("/ql4.transport.v1.SourceService/GetVolumeInfo"),
              "/ql4.transport.v1.SourceService/GetVolumeInfo is not available on this server");
}

}  // namespace
}  // namespace ql
