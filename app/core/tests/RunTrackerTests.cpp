#include "app/core/RunTracker.h"

#include <gtest/gtest.h>

namespace ql {
namespace {

namespace wire = ql4::transport::v1;

const std::string kRun(16, '\x11');

wire::ClonerEvent event(std::int64_t seconds = 0) {
    wire::ClonerEvent e;
    e.set_timestamp_unix_nanos(1'700'000'000'000'000'000 + seconds * 1'000'000'000);
    e.mutable_run_id()->set_value(kRun);
    return e;
}

wire::ClonerEvent progress(std::int64_t seconds, std::int64_t filesCopied, std::int64_t bytesCopied,
                           std::string path = "Documents/a.txt") {
    auto e = event(seconds);
    auto* p = e.mutable_progress();
    p->set_files_copied(filesCopied);
    p->set_bytes_copied(bytesCopied);
    p->set_files_evaluated(filesCopied);
    p->set_bytes_evaluated(bytesCopied);
    p->set_scout_done(true);
    p->set_scout_total_files(10);
    p->set_scout_total_bytes(1000);
    p->set_walk_done(true);
    p->set_rate_effective_bps(2000);
    p->set_rate_window_bps(2000);
    p->set_rate_window_valid(true);
    p->set_eta_seconds(90);
    p->set_eta_selected_seconds(90);
    p->set_work_done_bytes(bytesCopied);
    p->set_current_copy_path(path);
    p->set_current_path(std::move(path));
    return e;
}

wire::ClonerEvent log(std::string text) {
    auto e = event();
    e.mutable_log()->set_text(std::move(text));
    return e;
}

Tile job() {
    Tile t;
    t.id = "J";
    t.name = "Docs";
    return t;
}

TEST(RunTracker, AWholeRunMovesTheFacePhasesProgressAndHistory) {
    RunTracker tracker(job());
    auto queued = event();
    queued.mutable_queued()->set_position_in_queue(1);
    queued.mutable_queued()->set_blocking_tile_id("OTHER");
    EXPECT_EQ(tracker.apply(queued), RunTracker::Change::queued);
    EXPECT_EQ(tracker.tile().face, Tile::Face::queued);
    EXPECT_EQ(tracker.queuedBlockerTileID(), "OTHER");
    EXPECT_EQ(tracker.runID(), "11111111-1111-1111-1111-111111111111");

    auto started = event(1);
    started.mutable_started();
    EXPECT_EQ(tracker.apply(started), RunTracker::Change::started);
    ASSERT_TRUE(tracker.tile().running);
    EXPECT_EQ(tracker.tile().face, Tile::Face::running);
    ASSERT_EQ(tracker.tile().running->phases.size(), 3u) << "prepare, snapshot, files";

    auto phase = event(1);
    phase.mutable_phase_start()->set_name("files");
    EXPECT_EQ(tracker.apply(phase), RunTracker::Change::phases);
    EXPECT_EQ(tracker.tile().running->phases[0].state, PhaseState::done);
    EXPECT_EQ(tracker.tile().running->phases[2].state, PhaseState::active);

    EXPECT_EQ(tracker.apply(progress(2, 5, 500)), RunTracker::Change::progress);
    const auto& r = *tracker.tile().running;
    EXPECT_FALSE(r.isEstimating);
    EXPECT_NEAR(r.overallProgress, 0.5, 1e-9);
    EXPECT_EQ(r.ratePerSec, 2000u);
    EXPECT_EQ(r.etaText, "1m 30s remaining");
    EXPECT_EQ(r.currentPath, "Documents/a.txt");

    EXPECT_EQ(tracker.apply(log("copied a.txt")), RunTracker::Change::log);
    auto done = event(5);
    auto* c = done.mutable_completed();
    c->set_items_copied(10);
    c->set_items_evaluated(12);
    c->set_bytes_copied(1000);
    c->set_elapsed_nanos(4'000'000'000);
    EXPECT_EQ(tracker.apply(done), RunTracker::Change::ended);
    EXPECT_TRUE(tracker.ended());
    EXPECT_EQ(tracker.tile().face, Tile::Face::completed);
    EXPECT_FALSE(tracker.tile().running) << "the running state is cleared with the terminal event";
    ASSERT_TRUE(tracker.lastState());
    ASSERT_TRUE(tracker.lastRun());
    EXPECT_EQ(tracker.lastRun()->outcome, Tile::HistoryRun::Outcome::ok);
    EXPECT_EQ(tracker.lastRun()->filesCopied, 10u);
    EXPECT_EQ(tracker.lastRun()->bytesText, "1.0 KB");
    EXPECT_EQ(tracker.lastRun()->durationText, "4.0 s");
    EXPECT_EQ(tracker.lastRun()->logContent, "copied a.txt\n");
    EXPECT_EQ(tracker.tile().successStreak, 1);
    EXPECT_EQ(tracker.tile().runHistory.size(), 1u);

    // Nothing after the terminal event counts.
    EXPECT_EQ(tracker.apply(progress(6, 1, 1)), RunTracker::Change::none);
}

TEST(RunTracker, StallNoticesComeFromHintsAndEndWhenTheRunMovesAgain) {
    RunTracker tracker(job());
    auto started = event();
    started.mutable_started();
    tracker.apply(started);
    tracker.apply(progress(1, 3, 300, "big.iso"));
    EXPECT_EQ(tracker.apply(log("stall: subject=copy stalled_s=12.7 path=/src/big.iso")), RunTracker::Change::hint);
    ASSERT_TRUE(tracker.tile().running->stallNotice);
    const auto notice = *tracker.tile().running->stallNotice;
    EXPECT_EQ(notice.kind, Tile::RunningState::StallNotice::Kind::fileStall);
    EXPECT_EQ(notice.path, "/src/big.iso");
    EXPECT_DOUBLE_EQ(notice.seconds, 12.7);
    EXPECT_EQ(RunTracker::stallTitle(notice), "Copying large file");
    EXPECT_EQ(RunTracker::stallText(notice), "Still working — 12 seconds and counting…");

    tracker.apply(progress(2, 3, 300, "big.iso"));
    EXPECT_TRUE(tracker.tile().running->stallNotice) << "a sample that did not move keeps the notice";
    tracker.apply(progress(3, 4, 400, "next.txt"));
    EXPECT_FALSE(tracker.tile().running->stallNotice);

    tracker.apply(log("slow: subject=walk in_dir_s=40 entries=100 path=/src/huge dir"));
    ASSERT_TRUE(tracker.tile().running->stallNotice);
    EXPECT_EQ(tracker.tile().running->stallNotice->kind, Tile::RunningState::StallNotice::Kind::scanSlow);
    EXPECT_EQ(RunTracker::stallText(*tracker.tile().running->stallNotice), "Still scanning /src/huge dir");

    EXPECT_EQ(RunTracker::stallUpdate("scanner_stuck").notice.kind, Tile::RunningState::StallNotice::Kind::scanStuck);
    EXPECT_EQ(RunTracker::stallUpdate("stalled but not a hint").kind, RunTracker::StallNoticeUpdate::Kind::keep);
}

TEST(RunTracker, AUserCancelledRunEndsAsCancelledWhateverItsTerminalSays) {
    RunTracker tracker(job());
    auto started = event();
    started.mutable_started();
    tracker.apply(started);
    tracker.markUserCancelled();
    EXPECT_TRUE(tracker.tile().running->isCancelling);
    auto failed = event(2);
    failed.mutable_failed()->set_error_message("qlcopy was interrupted");
    tracker.apply(failed);
    ASSERT_TRUE(tracker.lastRun());
    EXPECT_EQ(tracker.lastRun()->outcome, Tile::HistoryRun::Outcome::cancelled);
    EXPECT_EQ(tracker.tile().face, Tile::Face::configured);
    EXPECT_EQ(tracker.tile().successStreak, 0);
}

TEST(RunTracker, FailuresKeepTheirFactsAndMarkThePhase) {
    RunTracker tracker(job());
    auto started = event();
    started.mutable_started();
    tracker.apply(started);
    auto step = event();
    step.mutable_step_end()->set_phase_name("prepare");
    step.mutable_step_end()->set_name("resolve");
    step.mutable_step_end()->set_error_message("the destination is not connected");
    tracker.apply(step);
    auto failed = event(3);
    auto* f = failed.mutable_failed();
    f->set_error_message("The destination isn't connected.");
    f->set_failed_phase("prepare");
    f->set_failed_path("/dst/x");
    f->set_failed_errno(5);
    f->set_error_count(2);
    tracker.apply(failed);
    ASSERT_TRUE(tracker.lastRun());
    EXPECT_EQ(tracker.lastRun()->outcome, Tile::HistoryRun::Outcome::failed);
    EXPECT_EQ(tracker.lastRun()->reason, "The destination isn't connected.");
    ASSERT_TRUE(tracker.lastRun()->failure);
    EXPECT_EQ(tracker.lastRun()->failure->path, "/dst/x");
    EXPECT_EQ(tracker.lastRun()->failure->count, 2);
    EXPECT_EQ(tracker.failedStepMessage(), "the destination is not connected");
    EXPECT_EQ(tracker.tile().face, Tile::Face::failed);
    ASSERT_TRUE(tracker.lastState());
    EXPECT_EQ(tracker.lastState()->phases[0].state, PhaseState::failed);
}

TEST(RunTracker, PauseScanModeAndWaitingHints) {
    RunTracker tracker(job());
    auto requested = event();
    requested.mutable_pause_requested();
    tracker.apply(requested);
    EXPECT_TRUE(tracker.tile().running->pausePending);
    auto paused = event();
    paused.mutable_paused();
    tracker.apply(paused);
    EXPECT_TRUE(tracker.tile().running->isPaused);
    EXPECT_FALSE(tracker.tile().running->pausePending);
    auto resumed = event();
    resumed.mutable_resumed();
    tracker.apply(resumed);
    EXPECT_FALSE(tracker.tile().running->isPaused);

    auto scan = event();
    scan.mutable_scan_mode()->set_mode(wire::ScanMode::MODE_FULL);
    scan.mutable_scan_mode()->set_reason(wire::ScanMode::REASON_FIRST_RUN);
    tracker.apply(scan);
    EXPECT_EQ(RunTracker::scanModeLabel(*tracker.tile().running->scanMode),
              "Initial backup — full scan, this may take a while");

    auto connect = event();
    connect.mutable_awaiting_connect()->set_display_name("NAS");
    tracker.apply(connect);
    EXPECT_EQ(tracker.tile().running->statusHint, std::optional<std::string>("Connecting to “NAS”"));

    auto other = event();
    other.mutable_run_id()->set_value(std::string(16, '\x22'));
    other.mutable_paused();
    EXPECT_EQ(tracker.apply(other), RunTracker::Change::none) << "another run's events are ignored";
    EXPECT_EQ(tracker.apply(event()), RunTracker::Change::none) << "an event without a payload";
}

}  // namespace
}  // namespace ql
