#include "QLProtocol/server/JournalTransitionWatch.h"
#include "QLProtocol/server/KeybagLockState.h"
#include "QLProtocol/server/MachineIdentity.h"
#include "QLProtocol/server/ServerPaths.h"
#include "QLProtocol/server/tests/ServerTestSupport.h"
#include "QLSupport/AtomicFile.h"
#include "QLSupport/Log.h"
#include "QLSupport/Uuid.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace ql {
namespace {

using testing::TempDir;

std::vector<std::string> names(const std::filesystem::path& dir) {
    std::vector<std::string> out;
    for (const auto& e : std::filesystem::directory_iterator(dir)) out.push_back(e.path().filename());
    std::sort(out.begin(), out.end());
    return out;
}

TEST(ServerPathsOnDisk, StateDirectoryIsCreatedWithItsParents) {
    TempDir dir;
    auto paths = ServerPaths::forPlatform(dir / "a/b/state");
    ASSERT_TRUE(paths.ensureStateDirectory());
    ASSERT_TRUE(paths.ensureLogDirectory());
    EXPECT_TRUE(std::filesystem::is_directory(dir / "a/b/state/logs"));
    ASSERT_TRUE(AtomicFile::write(dir / "file", "x"));
    auto blocked = ServerPaths::underRoot(dir / "file" / "state").ensureStateDirectory();
    EXPECT_FALSE(blocked);
}

TEST(MachineIdentityStore, MintedOnceThenKept) {
    TempDir dir;
    const auto file = dir / "machine-identity.json";
    FakePlatformIdentityProbe probe;
    probe.systemMachineIDValue = "01234567-89AB-CDEF-0123-456789ABCDEF";
    probe.platformUUIDValue = "4C4C4544-0042-3510-8052-B4C04F384D32";
    auto first = MachineIdentity::loadOrMint(file, probe);
    EXPECT_EQ(first.machineID, "01234567-89AB-CDEF-0123-456789ABCDEF");
    EXPECT_EQ(first.platformUUID, "4C4C4544-0042-3510-8052-B4C04F384D32");

    // The system id changing later does not change the server's; an unreadable platform UUID
    // (not root) keeps the one read before.
    probe.systemMachineIDValue = "FFFFFFFF-0000-0000-0000-000000000000";
    probe.platformUUIDValue.reset();
    EXPECT_EQ(MachineIdentity::loadOrMint(file, probe), first);
    auto stored = parseJson(AtomicFile::read(file).value()).value();
    EXPECT_EQ(stored, (Json{{"machineID", first.machineID}, {"platformUUID", *first.platformUUID}}));

    // Without a system id a random one is minted; a damaged file is replaced.
    ASSERT_TRUE(AtomicFile::write(file, "{\"machineID\": 7}"));
    FakePlatformIdentityProbe bare;
    auto minted = MachineIdentity::loadOrMint(file, bare);
    EXPECT_TRUE(Uuid::isValid(minted.machineID));
    EXPECT_FALSE(minted.platformUUID);
    EXPECT_EQ(MachineIdentity::loadOrMint(file, bare).machineID, minted.machineID);
}

TEST(MachineIdentityStore, LiveProbeReadsThisMachine) {
    LivePlatformIdentityProbe probe;
    auto system = probe.systemMachineID();
    if (!system) GTEST_SKIP() << "this machine has no /etc/machine-id";
    EXPECT_TRUE(Uuid::isValid(*system));
    if (auto platform = probe.platformUUID()) {
        EXPECT_TRUE(Uuid::isValid(*platform));
    }
}

class KeybagTest : public ::testing::Test {
protected:
    TempDir dir;
    FakeProtectionClassFacility facility;
    LiveKeybagLockState keybag{dir.path(), facility};
};

TEST_F(KeybagTest, NeverSeenWorkingFailsOpenAndLeavesNoProbeBehind) {
    facility.setResult = ENOTSUP;
    LogCapture log;
    EXPECT_FALSE(keybag.isLocked());
    EXPECT_TRUE(log.contains("[keybag] F_SETPROTECTIONCLASS unsupported at " + (dir / ".keybag-probe-").string()));
    EXPECT_TRUE(log.contains("(errno " + std::to_string(ENOTSUP) +
                             ", never seen working) — probe fails open (unlocked)"));
    EXPECT_TRUE(names(dir.path()).empty());
}

TEST_F(KeybagTest, WorkingOnceThenFailingMeansLocked) {
    facility.consoleUID = 501;
    EXPECT_FALSE(keybag.isLocked());
    EXPECT_TRUE(std::filesystem::exists(keybag.memoPath()));
    EXPECT_EQ(facility.protectionClass(keybag.memoPath()), ProtectionClassFacility::classA);
    EXPECT_EQ(facility.ownerOf(keybag.memoPath()), 501u);

    facility.setResult = EPERM;
    facility.onlyProbeFails = true;
    LogCapture log;
    EXPECT_TRUE(keybag.isLocked());
    EXPECT_TRUE(log.contains("[keybag] class-A set failed (errno " + std::to_string(EPERM) +
                             ", dp-supported=true) — keybag LOCKED; deferring"));
    EXPECT_EQ(names(dir.path()), std::vector<std::string>{"keybag-dp-supported"});
}

TEST_F(KeybagTest, MemoRepairs) {
    // A memo from before the class was pinned is re-minted.
    ASSERT_TRUE(AtomicFile::write(keybag.memoPath(), ""));
    facility.setClass(keybag.memoPath(), 3);
    {
        LogCapture log;
        EXPECT_FALSE(keybag.isLocked());
        EXPECT_TRUE(log.contains("[keybag] sentinel at " + keybag.memoPath().string() +
                                 " is not class A — re-minting (pre-fix file, 2026-07-07 gate hole)"));
        EXPECT_EQ(facility.protectionClass(keybag.memoPath()), ProtectionClassFacility::classA);
    }
    // A change of owner that drops the class is re-pinned.
    std::filesystem::remove(keybag.memoPath());
    facility.consoleUID = 501;
    facility.chownDropsClass = true;
    {
        LogCapture log;
        EXPECT_FALSE(keybag.isLocked());
        EXPECT_TRUE(log.contains("[keybag] chown moved " + keybag.memoPath().string() + " off class A — re-pinning"));
        EXPECT_EQ(facility.protectionClass(keybag.memoPath()), ProtectionClassFacility::classA);
    }
    // A refused change of owner leaves the memo root-owned.
    std::filesystem::remove(keybag.memoPath());
    facility.chownDropsClass = false;
    facility.chownResult = EPERM;
    {
        LogCapture log;
        EXPECT_FALSE(keybag.isLocked());
        EXPECT_TRUE(log.contains("[keybag] could not hand " + keybag.memoPath().string() + " to uid 501 (errno " +
                                 std::to_string(EPERM) + ") — it stays root-owned"));
    }
}

TEST_F(KeybagTest, LegacyMemoCountsAndIsReplaced) {
    ASSERT_TRUE(AtomicFile::write(keybag.legacyMemoPath(), ""));
    facility.setResult = EPERM;
    EXPECT_TRUE(keybag.isLocked());  // seen working before, under the old name
    facility.setResult = 0;
    EXPECT_FALSE(keybag.isLocked());
    EXPECT_EQ(names(dir.path()), std::vector<std::string>{"keybag-dp-supported"});
}

TEST(KeybagLive, ThisPlatformProbeAnswers) {
    TempDir dir;
    LiveProtectionClassFacility facility;
    LiveKeybagLockState keybag(dir.path(), facility);
#ifdef __linux__
    LogCapture log;
    EXPECT_FALSE(keybag.isLocked());
    EXPECT_TRUE(log.contains("never seen working) — probe fails open (unlocked)"));
    EXPECT_FALSE(std::filesystem::exists(keybag.memoPath()));
#else
    (void)keybag.isLocked();
#endif
}

TEST(JournalMap, ChangedJournalIsReportedOnceAndRemembered) {
    TempDir dir;
    const auto file = dir / "journal-map.json";
    {
        JournalTransitionWatch watch(file);
        EXPECT_FALSE(watch.observe({"VOL-1", "J-1", "Backup"}));  // first sighting
        EXPECT_FALSE(watch.observe({"VOL-1", "J-1", "Backup"}));
    }
    JournalTransitionWatch watch(file);
    LogCapture log;
    EXPECT_TRUE(watch.observe({"VOL-1", "J-2", "Backup"}));
    EXPECT_TRUE(log.contains("journal changed for volume 'Backup' (VOL-1) — an unclean unmount or reboot regenerates "
                             "the FSEvents journal; the next backup of this volume will full-scan"));
    EXPECT_FALSE(watch.observe({"VOL-1", "J-2", "Backup"}));
    EXPECT_EQ(parseJson(AtomicFile::read(file).value()).value(), (Json{{"VOL-1", "J-2"}}));

    ASSERT_TRUE(AtomicFile::write(file, "[1, 2"));
    JournalTransitionWatch damaged(file);
    EXPECT_FALSE(damaged.observe({"VOL-1", "J-3", "Backup"}));  // the map was lost: a first sighting again
    EXPECT_EQ(damaged.lastSeen("VOL-1"), "J-3");
}

}  // namespace
}  // namespace ql
