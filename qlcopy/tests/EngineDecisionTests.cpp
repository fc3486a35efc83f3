// The pure decisions: what a comparison concludes, which times are the same, which reason a
// full scan gives, and the small naming and bookkeeping rules.

#include "qlcopy/Comparator.h"
#include "qlcopy/ErrnoText.h"
#include "qlcopy/FilesystemTraits.h"
#include "qlcopy/HardLinkTracker.h"
#include "qlcopy/StateFile.h"
#include "qlcopy/TempNames.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace ql {
namespace {

EntryInfo entry(mode_t type, std::int64_t size, time_t sec, long nsec, mode_t perms = 0644, uid_t uid = 10) {
    EntryInfo e;
    e.name = "x";
    e.mode = type | perms;
    e.size = size;
    e.mtime = {sec, nsec};
    e.uid = uid;
    e.gid = 20;
    return e;
}

TEST(Comparator, DecidesByModeTypeSizeTimeAndMetadata) {
    MetadataSync owners(MetadataSync::Policy{true, std::nullopt});
    MetadataSync noOwners(MetadataSync::Policy{false, std::nullopt});
    using A = Comparator::Action;
    struct Case {
        const char* name;
        CopyMode mode;
        EntryInfo s;
        std::optional<EntryInfo> d;
        A action;
        unsigned meta;
        const MetadataSync* policy;
    };
    const auto file = S_IFREG;
    std::vector<Case> cases{
        {"absent", CopyMode::different, entry(file, 5, 100, 0), std::nullopt, A::add, 0, &owners},
        {"same", CopyMode::different, entry(file, 5, 100, 7), entry(file, 5, 100, 7), A::upToDate, 0, &owners},
        {"size", CopyMode::different, entry(file, 5, 100, 0), entry(file, 6, 100, 0), A::update, 0, &owners},
        {"older source still copied", CopyMode::different, entry(file, 5, 100, 0), entry(file, 5, 200, 0), A::update, 0,
         &owners},
        {"type", CopyMode::different, entry(S_IFLNK, 5, 100, 0), entry(file, 5, 100, 0), A::replace, 0, &owners},
        {"mode only", CopyMode::different, entry(file, 5, 100, 0, 0600), entry(file, 5, 100, 0, 0644), A::metaOnly,
         metaMode, &owners},
        {"owner only", CopyMode::different, entry(file, 5, 100, 0, 0644, 1), entry(file, 5, 100, 0, 0644, 2),
         A::metaOnly, metaOwner, &owners},
        {"owner ignored without root", CopyMode::different, entry(file, 5, 100, 0, 0644, 1),
         entry(file, 5, 100, 0, 0644, 2), A::upToDate, 0, &noOwners},
        {"seconds-only destination", CopyMode::different, entry(file, 5, 100, 999), entry(file, 5, 100, 0), A::upToDate,
         0, &owners},
        {"newer: source newer", CopyMode::newer, entry(file, 5, 200, 0), entry(file, 5, 100, 0), A::update, 0, &owners},
        {"newer: destination newer", CopyMode::newer, entry(file, 9, 100, 0), entry(file, 5, 200, 0), A::destNewer, 0,
         &owners},
        {"newer: same time other size", CopyMode::newer, entry(file, 9, 100, 0), entry(file, 5, 100, 0), A::destNewer,
         0, &owners},
        {"newer: same, mode differs", CopyMode::newer, entry(file, 5, 100, 0, 0600), entry(file, 5, 100, 0),
         A::metaOnly, metaMode, &owners},
        {"newer: type, source newer", CopyMode::newer, entry(S_IFLNK, 5, 200, 0), entry(file, 5, 100, 0), A::replace, 0,
         &owners},
        {"fifo times", CopyMode::different, entry(S_IFIFO, 0, 200, 0), entry(S_IFIFO, 0, 100, 0), A::metaOnly,
         metaTimes, &owners},
    };
    for (const auto& c : cases) {
        Comparator comparator(c.mode, 1, *c.policy);
        auto d = comparator.decide(c.s, c.d ? &*c.d : nullptr);
        EXPECT_EQ(d.action, c.action) << c.name;
        EXPECT_EQ(d.metaReasons, c.meta) << c.name;
    }
    // Symlinks compare their targets.
    Comparator comparator(CopyMode::different, 1, owners);
    auto a = entry(S_IFLNK, 3, 100, 0), b = entry(S_IFLNK, 3, 100, 0);
    std::string t1 = "abc", t2 = "abd";
    EXPECT_EQ(comparator.decide(a, &b, &t1, &t2).action, A::update);
    EXPECT_EQ(comparator.decide(a, &b, &t1, &t1).action, A::upToDate);
}

TEST(FilesystemTraits, SameTimeToTheCoarserPrecision) {
    struct Case {
        timespec a, b;
        std::int64_t granularity;
        bool same;
    };
    for (const Case& c : {Case{{10, 5}, {10, 5}, 1, true}, Case{{10, 5}, {10, 6}, 1, false},
                          Case{{10, 5}, {10, 0}, 1, true},  // one side keeps whole seconds
                          Case{{10, 500}, {11, 0}, 1, false}, Case{{10, 0}, {11, 0}, 2'000'000'000, true},
                          Case{{10, 0}, {12, 0}, 2'000'000'000, false},
                          Case{{10, 5'000'000}, {10, 12'000'000}, 10'000'000, true}}) {
        EXPECT_EQ(FilesystemTraits::sameTime(c.a, c.b, c.granularity), c.same)
            << c.a.tv_sec << "." << c.a.tv_nsec << " vs " << c.b.tv_sec << "." << c.b.tv_nsec;
    }
}

TEST(StateFile, FullScanReasons) {
    SourceIdentity here{"fs1", 2, "/src"};
    StateFile previous;
    previous.source = here;
    previous.rulesHash = "h1";
    EXPECT_EQ(StateFile::fullScanReason(std::nullopt, here, "h1"), "first_run");
    EXPECT_EQ(StateFile::fullScanReason(previous, here, "h1"), "history_expired");
    EXPECT_EQ(StateFile::fullScanReason(previous, here, "h2"), "rules_changed");
    EXPECT_EQ(StateFile::fullScanReason(previous, SourceIdentity{"fs2", 2, "/src"}, "h1"), "first_run");
    previous.formatVersion = 0;
    EXPECT_EQ(StateFile::fullScanReason(previous, here, "h2"), "history_expired");
    EXPECT_EQ(StateFile::hashRules("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST(ErrnoText, CarriesTextAndSymbolicName) {
    EXPECT_EQ(ErrnoText::describe(ENOSPC), "No space left on device (ENOSPC)");
    EXPECT_EQ(ErrnoText::describe(EACCES), "Permission denied (EACCES)");
    EXPECT_EQ(ErrnoText::name(ENOTEMPTY), "ENOTEMPTY");
    EXPECT_EQ(ErrnoText::name(9999), "errno 9999");
}

TEST(TempNames, AreUniqueAndRecognised) {
    auto a = TempNames::make(), b = TempNames::make();
    EXPECT_NE(a, b);
    EXPECT_TRUE(TempNames::isTemporary(a));
    EXPECT_FALSE(TempNames::isTemporary("report.qlcopy-partial-1"));
    EXPECT_FALSE(TempNames::isTemporary(".qlcopy"));
}

TEST(HardLinkTracker, ForgetsAnInodeOnceAllItsLinksAreSeen) {
    HardLinkTracker t;
    t.place(1, 100, 3, {"a/x", 555});
    t.place(1, 200, 1, {"a/single", 556});  // one link: nothing to remember
    EXPECT_EQ(t.size(), 1u);
    ASSERT_TRUE(t.find(1, 100));
    EXPECT_EQ(t.find(1, 100)->destRelative, "a/x");
    t.linkSeen(1, 100);
    EXPECT_TRUE(t.find(1, 100));
    t.linkSeen(1, 100);
    EXPECT_FALSE(t.find(1, 100));
    EXPECT_EQ(t.size(), 0u);
}

}  // namespace
}  // namespace ql
