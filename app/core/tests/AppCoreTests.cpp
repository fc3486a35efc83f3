#include "QLProtocol/transport/VolumeBridge.h"
#include "app/core/CopyPlan.h"
#include "app/core/DisplayFormat.h"
#include "app/core/JobVolumeRef.h"
#include "app/core/ScheduleGrammar.h"
#include "app/core/Tile.h"
#include "app/core/TileProse.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace ql {
namespace {

namespace wire = ql4::transport::v1;

TEST(DisplayFormat, RemainingTimeReadsAsTheClientShowsIt) {
    struct Case {
        std::int64_t seconds;
        const char* text;
    };
    const Case cases[] = {
        {-1, ""},
        {0, "Less than a minute remaining"},
        {59, "Less than a minute remaining"},
        {60, "1m 0s remaining"},
        {245, "4m 5s remaining"},
        {299, "4m 59s remaining"},
        {300, "About 5 minutes remaining"},
        {449, "About 5 minutes remaining"},
        {450, "About 10 minutes remaining"},
        {3449, "About 55 minutes remaining"},
        {3450, "About 1h remaining"},
        {5400, "About 2h remaining"},
    };
    for (const auto& c : cases) EXPECT_EQ(DisplayFormat::etaText(c.seconds), c.text) << c.seconds;
}

TEST(DisplayFormat, SizesRatesAndDurations) {
    EXPECT_EQ(DisplayFormat::bytes(0), "0 bytes");
    EXPECT_EQ(DisplayFormat::bytes(1), "1 byte");
    EXPECT_EQ(DisplayFormat::bytes(999), "999 bytes");
    EXPECT_EQ(DisplayFormat::bytes(1234), "1.2 KB");
    EXPECT_EQ(DisplayFormat::bytes(12'345'678), "12.3 MB");
    EXPECT_EQ(DisplayFormat::bytes(123'456'789'012), "123 GB");
    EXPECT_EQ(DisplayFormat::bytes(999'999), "1.0 MB");
    EXPECT_EQ(DisplayFormat::rate(0), "—");
    EXPECT_EQ(DisplayFormat::rate(12'300'000), "12.3 MB/s");
    EXPECT_EQ(DisplayFormat::duration(0.42), "0.4 s");
    EXPECT_EQ(DisplayFormat::duration(12.4), "12 s");
    EXPECT_EQ(DisplayFormat::duration(245), "4m 05s");
    EXPECT_EQ(DisplayFormat::duration(3720), "1h 02m");
    EXPECT_EQ(DisplayFormat::count(1, "file", "files"), "1 file");
    EXPECT_EQ(DisplayFormat::count(0, "file", "files"), "0 files");
}

Tile::Schedule schedule(std::set<int> days, int hour, int minute = 0, std::set<int> weeks = {}) {
    Tile::Schedule s;
    s.scheduleOn = true;
    s.days = std::move(days);
    s.weeks = std::move(weeks);
    s.minuteOfDay = hour * 60 + minute;
    return s;
}

TEST(ScheduleGrammar, PhrasesFollowTheDaysWeeksAndTime) {
    struct Case {
        Tile::Schedule schedule;
        const char* phrase;
    };
    const Case cases[] = {
        {schedule({1, 2, 3, 4, 5}, 5, 59), "every weeknight at 5:59 AM"},
        {schedule({1, 2, 3, 4, 5}, 6), "every weekday at 6:00 AM"},
        {schedule({1, 2, 3, 4, 5}, 17, 59), "every weekday at 5:59 PM"},
        {schedule({1, 2, 3, 4, 5}, 18), "every weeknight at 6:00 PM"},
        {schedule({1, 2, 3, 4, 5}, 23), "every weeknight at 11:00 PM"},
        {schedule({0, 6}, 9), "every weekend at 9:00 AM"},
        {schedule({3, 6}, 9), "on Wednesday and Saturday at 9:00 AM"},
        {schedule({1, 3, 5}, 18, 30), "on Monday, Wednesday, and Friday at 6:30 PM"},
        {schedule({0, 1, 2, 3, 4, 5, 6}, 0, 5), "every day at 12:05 AM"},
        {schedule({2}, 12), "every Tuesday at 12:00 PM"},
        {schedule({1}, 9, 0, {1, 3}), "every 1st and 3rd Monday at 9:00 AM"},
        {schedule({1, 5}, 9, 0, {2}), "on the 2nd Monday and Friday at 9:00 AM"},
        {schedule({1}, 9, 0, {1, 2, 3, 4, 5}), "every Monday at 9:00 AM"},
    };
    for (const auto& c : cases) EXPECT_EQ(ScheduleGrammar::phrase(c.schedule), c.phrase);
    EXPECT_EQ(ScheduleGrammar::joinList({}), "");
    EXPECT_EQ(ScheduleGrammar::joinList({"A"}), "A");
    EXPECT_EQ(ScheduleGrammar::joinList({"A", "B"}), "A and B");
    EXPECT_EQ(ScheduleGrammar::joinList({"A", "B", "C"}), "A, B, and C");
    EXPECT_EQ(ScheduleGrammar::ordinal(0), "?");
    EXPECT_EQ(ScheduleGrammar::dayName(7), "?");
}

Tile folderJob() {
    Tile t;
    t.id = "7E2C4F0A-1111-2222-3333-444455556666";
    t.name = "Documents → backup";
    t.sourceName = "Documents";
    t.destinationName = "Backup";
    t.copyRuleFilename = "Backup - your data.dset";
    return t;
}

TEST(TileProse, AJobReadsAsSentences) {
    auto tile = folderJob();
    EXPECT_EQ(TileProse::plainText(TileProse::runs(tile)),
              "Copy files from Documents to Backup, using Backup - your data with Smart Update. The result will not be "
              "bootable. Smart Update makes Backup identical to your selections from Documents. Runs when you click "
              "Copy Now, not on a schedule, with no actions on success.");

    tile.copyMode = Tile::CopyMode::copyNewer;
    tile.schedule = schedule({1, 2, 3, 4, 5}, 23);
    tile.schedule.mountOn = true;
    tile.onSuccess.additional.insert(Tile::OnSuccessChoice::AdditionalAction::notify);
    tile.onSuccess.powerAction = Tile::OnSuccessChoice::PowerAction::sleep;
    TileProse::Context context;
    context.timeMachine.destinationHasBackup = true;
    EXPECT_EQ(TileProse::plainText(TileProse::runs(tile, context)),
              "Copy files from Documents to Backup, using Backup - your data with Copy Newer. The result will not be "
              "bootable. Copy Newer updates Backup with any newer files selected from Documents. Time Machine "
              "backups are preserved. Runs every weeknight at 11:00 PM, and when Backup is connected; puts the Mac "
              "to sleep on success and sends a notification after every copy.");
    EXPECT_EQ(TileProse::whenPhrase(tile), "every weeknight at 11:00 PM, and when Backup is connected");

    tile.destinationName.clear();
    auto runs = TileProse::runs(tile);
    auto missing = std::find_if(runs.begin(), runs.end(), [](const auto& r) { return r.slot == "destination"; });
    ASSERT_NE(missing, runs.end());
    EXPECT_EQ(missing->kind, TileProse::Run::Kind::missingLink);
    EXPECT_EQ(missing->text, "your selected destination");
}

TEST(Tile, ServerRecordsBecomeTheClientsView) {
    wire::CopyTile w;
    w.set_id("ID-1");
    w.set_name("Docs");
    w.set_copy_mode(wire::COPY_MODE_COPY_DIFFERENT);
    w.set_copy_script(wire::COPY_SCRIPT_BACKUP_YOUR_DATA);
    w.mutable_source()->set_display_name("Root filesystem");
    w.mutable_source()->set_subpath("home/ann/Documents");
    w.mutable_destination()->set_display_name("Backup");
    w.mutable_schedule()->set_schedule_on(true);
    w.mutable_schedule()->add_days(1);
    w.mutable_schedule()->set_minute_of_day(23 * 60);
    auto* older = w.add_recent_runs();
    older->set_outcome(wire::RunRecord::OUTCOME_FAILED);
    older->set_summary("Failed in files");
    older->set_started_at_unix_nanos(1'000'000'000'000'000'000);
    older->set_ended_at_unix_nanos(1'000'000'010'000'000'000);
    auto* newer = w.add_recent_runs();
    newer->set_outcome(wire::RunRecord::OUTCOME_SUCCEEDED);
    newer->set_items_copied(3);
    newer->set_bytes_copied(1234);
    newer->set_started_at_unix_nanos(1'000'000'100'000'000'000);
    newer->set_ended_at_unix_nanos(1'000'000'105'000'000'000);

    auto t = Tile::fromWire(w);
    EXPECT_EQ(t.copyMode, Tile::CopyMode::copyDifferent);
    EXPECT_EQ(t.copyRuleFilename, "Backup - your data.dset") << "the legacy built-in rule stands in for an empty file name";
    EXPECT_EQ(t.sourceSubpath, std::optional<std::string>("home/ann/Documents"));
    EXPECT_FALSE(t.destinationSubpath);
    EXPECT_EQ(t.schedule.days, (std::set<int>{1}));
    ASSERT_EQ(t.runHistory.size(), 2u);
    EXPECT_EQ(t.runHistory[0].outcome, Tile::HistoryRun::Outcome::ok) << "most recent first";
    EXPECT_EQ(t.runHistory[0].filesCopied, 3u);
    EXPECT_EQ(t.runHistory[0].bytesText, "1.2 KB");
    EXPECT_EQ(t.runHistory[0].durationText, "5.0 s");
    EXPECT_EQ(t.runHistory[1].reason, "Failed in files");
    EXPECT_EQ(Tile::ruleDisplayName("Backup - your data.dset"), "Backup - your data");
    EXPECT_EQ(Tile::ruleDisplayName(""), "Backup - all files");
}

// ---- Copy planning ---------------------------------------------------------------------------

wire::VolumeSummary volume(std::string name, std::string mount, std::string uuid) {
    wire::VolumeSummary v;
    v.set_name(std::move(name));
    v.set_mount_point(std::move(mount));
    v.set_volume_uuid(std::move(uuid));
    v.set_bsd_device("dev-" + v.name());
    return v;
}

TEST(CopyPlan, TheVolumeHoldingAPathIsTheClosestMount) {
    const std::vector<wire::VolumeSummary> volumes = {volume("Root", "/", "R"), volume("Home", "/home", "H"),
                                                      volume("Stick", "/media/stick/", "S")};
    struct Case {
        const char* path;
        const char* volume;
    };
    const Case cases[] = {
        {"/", "Root"},
        {"/etc", "Root"},
        {"/home", "Home"},
        {"/home/ann/Documents", "Home"},
        {"/homework", "Root"},
        {"/media/stick", "Stick"},
        {"/media/stick/a", "Stick"},
        {"/media/sticky", "Root"},
    };
    for (const auto& c : cases) {
        auto found = CopyPlan::volumeHolding(c.path, volumes);
        ASSERT_TRUE(found) << c.path;
        EXPECT_EQ(found->name(), c.volume) << c.path;
    }
    EXPECT_FALSE(CopyPlan::volumeHolding("/tmp/x", {volume("Home", "/home", "H")}));
    EXPECT_EQ(CopyPlan::subpathWithin("/home/ann/Documents", "/home"), "ann/Documents");
    EXPECT_EQ(CopyPlan::subpathWithin("/home", "/home/"), "");
    EXPECT_EQ(CopyPlan::subpathWithin("/etc/x", "/"), "etc/x");
}

CopyPlan::Endpoint endpoint(std::string path, wire::VolumeSummary v) {
    CopyPlan::Endpoint e;
    e.volume = std::move(v);
    e.subpath = CopyPlan::subpathWithin(path, e.volume.mount_point());
    e.path = std::move(path);
    e.exists = true;
    return e;
}

TEST(CopyPlan, AJobIsFoundAgainByItsTwoFolders) {
    const auto root = volume("Root", "/", "R");
    const auto stick = volume("Stick", "/media/stick", "S");
    auto docs = endpoint("/home/ann/Documents", root);
    auto backup = endpoint("/media/stick/backup", stick);
    auto job = CopyPlan::newJob(docs, backup, CopyPlan::jobName(docs, backup), Tile::CopyMode::copyNewer, "");
    job.set_id("J1");
    EXPECT_EQ(job.name(), "Documents → backup");
    EXPECT_EQ(job.copy_mode(), wire::COPY_MODE_COPY_NEWER);
    EXPECT_EQ(job.source().subpath(), "home/ann/Documents");
    EXPECT_EQ(job.source().volume_uuid(), "R");
    EXPECT_EQ(job.source().bsd_device_hint(), "dev-Root");
    EXPECT_EQ(job.destination().display_name(), "Stick");
    EXPECT_EQ(job.source().partition_size_bytes(), 0u) << "facts the server records are left to it";

    // The stored job carries what the server added; it is still the same pair.
    auto stored = job;
    stored.mutable_source()->set_partition_map_type("wholeDisk");
    stored.mutable_source()->set_subpath("/home/ann/Documents/");
    const std::vector<wire::CopyTile> jobs = {stored};
    EXPECT_TRUE(CopyPlan::findJob(jobs, CopyPlan::binding(docs), CopyPlan::binding(backup)));
    EXPECT_FALSE(CopyPlan::findJob(jobs, CopyPlan::binding(backup), CopyPlan::binding(docs))) << "direction matters";
    EXPECT_FALSE(CopyPlan::findJob(jobs, CopyPlan::binding(endpoint("/home/ann", root)), CopyPlan::binding(backup)));
    auto otherStick = stick;
    otherStick.set_volume_uuid("T");
    EXPECT_FALSE(CopyPlan::findJob(jobs, CopyPlan::binding(docs),
                                   CopyPlan::binding(endpoint("/media/stick/backup", otherStick))))
        << "the same path on another volume is another job";

    auto whole = endpoint("/media/stick", stick);
    EXPECT_EQ(CopyPlan::jobName(docs, whole), "Documents → Stick");
    EXPECT_EQ(CopyPlan::modeNamed("smart"), Tile::CopyMode::smartUpdate);
    EXPECT_EQ(CopyPlan::modeNamed("different"), Tile::CopyMode::copyDifferent);
    EXPECT_FALSE(CopyPlan::modeNamed("erase"));
}

TEST(CopyPlan, TheRequestCarriesTheJobTheModeAndTheHints) {
    auto docs = endpoint("/home/ann/Documents", volume("Root", "/", "R"));
    auto backup = endpoint("/media/stick/backup", volume("Stick", "/media/stick", "S"));
    auto job = CopyPlan::newJob(docs, backup, "Docs", Tile::CopyMode::copyDifferent, "Mine.dset");
    job.set_id("J1");
    wire::VolumeRef sourceRef, destinationRef;
    sourceRef.set_display_name("Root");
    auto r = CopyPlan::request(job, sourceRef, destinationRef, docs, backup, true, "/rules/Mine.dset", {"/rules"});
    EXPECT_EQ(r.tile_id(), "J1");
    EXPECT_EQ(r.tile_name(), "Docs");
    EXPECT_EQ(r.during_copy(), wire::DCM_COPY_DIFFERENT);
    EXPECT_EQ(r.source().subpath(), "home/ann/Documents");
    EXPECT_EQ(r.destination().subpath(), "backup");
    EXPECT_EQ(r.source_path(), "/home/ann/Documents");
    EXPECT_EQ(r.destination_path(), "/media/stick/backup");
    EXPECT_EQ(r.source_volume_uuid(), "R");
    EXPECT_EQ(r.destination_bsd_device(), "dev-Stick");
    EXPECT_TRUE(r.dry_run());
    EXPECT_EQ(r.copy_script_path(), "/rules/Mine.dset");
    ASSERT_EQ(r.copy_script_search_dirs_size(), 1);
}

std::string guid(char fill) { return std::string(16, fill); }

TEST(JobVolumeRef, EachKindOfBindingBecomesItsKey) {
    wire::VolumeBinding gpt;
    gpt.set_partition_guid(guid('g'));
    gpt.set_volume_uuid(guid('v'));
    gpt.set_partition_map_type("gpt");
    gpt.set_filesystem_family("other");
    gpt.set_partition_size_bytes(1000);
    gpt.set_hardware_serial("SER");
    gpt.set_display_name("Data");
    gpt.set_subpath("home/ann");
    auto ref = JobVolumeRef::fromBinding(gpt);
    ASSERT_TRUE(ref) << ref.error();
    EXPECT_EQ(ref->key().gpt_partition_guid(), guid('g'));
    EXPECT_EQ(ref->target().kind(), wire::VolumeTarget::WHOLE_FILESYSTEM);
    EXPECT_EQ(ref->invariants().partition_map_type(), wire::PMT_GPT);
    EXPECT_EQ(ref->invariants().filesystem_family(), wire::FF_OTHER);
    EXPECT_EQ(ref->invariants().partition_size_bytes(), 1000u);
    EXPECT_EQ(ref->invariants().hardware_serial(), "SER");
    EXPECT_EQ(ref->subpath(), "home/ann");
    ASSERT_TRUE(VolumeBridge::fromWire(*ref)) << "the runner accepts it";

    auto whole = gpt;
    whole.clear_partition_guid();
    whole.set_partition_map_type("wholeDisk");
    ref = JobVolumeRef::fromBinding(whole);
    ASSERT_TRUE(ref);
    EXPECT_EQ(ref->key().whole_disk_volume_uuid(), guid('v'));
    EXPECT_EQ(ref->invariants().partition_map_type(), wire::PMT_WHOLE_DISK);

    auto mbr = gpt;
    mbr.set_partition_map_type("mbr");
    ref = JobVolumeRef::fromBinding(mbr);
    ASSERT_TRUE(ref);
    EXPECT_EQ(ref->key().mbr_slice().volume_uuid(), guid('v'));

    wire::VolumeBinding share;
    share.set_network_url("smb://nas/share");
    share.set_filesystem_family("smb");
    ref = JobVolumeRef::fromBinding(share);
    ASSERT_TRUE(ref);
    EXPECT_EQ(ref->key().network_share().url(), "smb://nas/share");
    EXPECT_EQ(ref->invariants().partition_map_type(), wire::PMT_NETWORK);
    EXPECT_EQ(ref->invariants().filesystem_family(), wire::FF_SMB);

    wire::VolumeBinding incomplete;
    incomplete.set_display_name("Stick");
    auto refused = JobVolumeRef::fromBinding(incomplete);
    ASSERT_FALSE(refused);
    EXPECT_NE(refused.error().find("“Stick”"), std::string::npos);
}

}  // namespace
}  // namespace ql
