#include "QLProtocol/runners/ProgressModel.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace {

namespace wire = ql4::transport::v1;
using ql::NormalizedProgress;
using ql::ProgressModel;

// A replication-runner sample: bytes done of a known total, nothing else.
wire::Progress replication(std::int64_t copied, std::int64_t total, std::int64_t eta) {
    wire::Progress p;
    p.set_bytes_copied(copied);
    p.set_bytes_total(total);
    p.set_eta_seconds(eta);
    p.set_current_path("Macintosh HD - Data");
    return p;
}

TEST(ProgressModel, ReplicationShape) {
    struct Case {
        const char* name;
        wire::Progress progress;
        bool estimating;
        std::optional<double> fraction;
        std::uint64_t completed;
    };
    const Case cases[] = {
        {"a quarter", replication(250, 1000, 30), false, 0.25, 250},
        {"estimate unknown", replication(250, 1000, -1), true, std::nullopt, 250},
        {"eta zero is an estimate", replication(0, 1, 0), false, 0.0, 0},
        {"beyond the total is capped", replication(1500, 1000, 0), false, 1.0, 1500},
        {"negative bytes read as none", replication(-7, 1000, 5), false, 0.0, 0},
    };
    for (const auto& c : cases) {
        auto n = ProgressModel::normalize(c.progress);
        EXPECT_TRUE(n.isAsrShape) << c.name;
        EXPECT_EQ(n.isEstimating, c.estimating) << c.name;
        EXPECT_EQ(n.fraction, c.fraction) << c.name;
        EXPECT_EQ(n.bytesCompleted, c.completed) << c.name;
        EXPECT_EQ(n.bytesCopied, c.completed) << c.name;
        EXPECT_EQ(n.bytesTotal, static_cast<std::uint64_t>(c.progress.bytes_total())) << c.name;
        EXPECT_EQ(n.etaSeconds, c.progress.eta_seconds()) << c.name;
        EXPECT_EQ(n.currentPath, "Macintosh HD - Data") << c.name;
        EXPECT_EQ(n.filesCompleted, 0u);
        EXPECT_EQ(n.filesTotal, 0u);
        EXPECT_EQ(n.bytesUpToDate, 0u);
    }
}

TEST(ProgressModel, ReplicationShapeIgnoresEngineFields) {
    auto p = replication(10, 100, 3);
    p.set_delete_backpressure(true);
    p.set_copy_in_flight(true);
    p.set_walk_done(true);
    p.set_current_copy_path("x");
    p.set_current_scan_path("y");
    p.set_dirs_retime_total(9);
    p.set_items_deleted(-4);
    auto n = ProgressModel::normalize(p);
    EXPECT_FALSE(n.deleteBackpressure);
    EXPECT_FALSE(n.copyInFlight);
    EXPECT_FALSE(n.walkDone);
    EXPECT_EQ(n.copyPath, "");
    EXPECT_EQ(n.scanPath, "");
    EXPECT_EQ(n.dirsRetimeTotal, 0);
    EXPECT_EQ(n.itemsDeleted, 0);
    EXPECT_EQ(n.fraction, 0.1);
}

// An engine sample late in a run whose sizing pass has finished.
wire::Progress engine() {
    wire::Progress p;
    p.set_files_copied(800);
    p.set_files_evaluated(5000);
    p.set_bytes_evaluated(900);
    p.set_bytes_copied(300);
    p.set_bytes_skipped(600);
    p.set_files_skipped(4200);
    p.set_scout_total_files(6000);
    p.set_scout_total_bytes(1000);
    p.set_scout_done(true);
    p.set_eta_selected_seconds(14);
    p.set_eta_seconds(99);
    p.set_current_scan_path("Users/ann/Music");
    p.set_current_copy_path("Users/ann/Movies/trip.mov");
    p.set_items_deleted(17);
    p.set_dirs_retime_checked(5);
    p.set_dirs_retime_total(40);
    p.set_copy_in_flight(true);
    p.set_walk_done(true);
    return p;
}

TEST(ProgressModel, EngineShapeWithoutWorkDoneMeasuresWhatWasEvaluated) {
    auto n = ProgressModel::normalize(engine());
    NormalizedProgress expected;
    expected.bytesCompleted = 900;
    expected.bytesTotal = 1000;
    expected.filesCompleted = 5000;
    expected.filesTotal = 6000;
    expected.bytesCopied = 300;
    expected.bytesUpToDate = 600;
    expected.fraction = 0.9;
    expected.etaSeconds = 14;
    expected.currentPath = "Users/ann/Movies/trip.mov";
    expected.itemsDeleted = 17;
    expected.copyInFlight = true;
    expected.copyPath = "Users/ann/Movies/trip.mov";
    expected.scanPath = "Users/ann/Music";
    expected.walkDone = true;
    expected.dirsRetimeChecked = 5;
    expected.dirsRetimeTotal = 40;
    EXPECT_EQ(n, expected);
}

TEST(ProgressModel, WorkDoneBytesAbsentVersusZero) {
    auto p = engine();
    auto absent = ProgressModel::normalize(p);
    EXPECT_EQ(absent.bytesCompleted, 900u);
    EXPECT_EQ(absent.filesCompleted, 5000u);

    p.set_work_done_bytes(0);
    auto zero = ProgressModel::normalize(p);
    EXPECT_EQ(zero.bytesCompleted, 0u);
    EXPECT_EQ(zero.fraction, 0.0);
    // Files done are then what was copied plus what was already up to date.
    EXPECT_EQ(zero.filesCompleted, 5000u);

    p.set_work_done_bytes(950);
    p.set_files_skipped(5900);
    auto capped = ProgressModel::normalize(p);
    EXPECT_EQ(capped.bytesCompleted, 950u);
    EXPECT_EQ(capped.fraction, 0.95);
    EXPECT_EQ(capped.filesCompleted, 6000u) << "capped at the sizing pass's total";

    p.set_scout_total_files(0);
    EXPECT_EQ(ProgressModel::normalize(p).filesCompleted, 6700u) << "no cap without a total";

    p.set_files_skipped(std::numeric_limits<std::int64_t>::max());
    EXPECT_EQ(ProgressModel::normalize(p).filesCompleted, static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()));
    p.set_work_done_bytes(-5);
    EXPECT_EQ(ProgressModel::normalize(p).bytesCompleted, 0u);
}

TEST(ProgressModel, FractionNeedsAFinishedSizingPassAndNoDeleteBackpressure) {
    struct Case {
        const char* name;
        std::int64_t scoutBytes;
        bool scoutDone;
        bool backpressure;
        bool estimating;
        std::optional<double> fraction;
    };
    const Case cases[] = {
        {"sized", 1000, true, false, false, 0.9},
        {"sizing still running", 1000, false, false, true, std::nullopt},
        {"nothing sized yet", 0, true, false, true, std::nullopt},
        {"deleting holds progress back", 1000, true, true, true, std::nullopt},
        {"deleting while sizing", 1000, false, true, true, std::nullopt},
        {"negative total", -1, true, false, true, std::nullopt},
    };
    for (const auto& c : cases) {
        auto p = engine();
        p.set_scout_total_bytes(c.scoutBytes);
        p.set_scout_done(c.scoutDone);
        p.set_delete_backpressure(c.backpressure);
        auto n = ProgressModel::normalize(p);
        EXPECT_FALSE(n.isAsrShape) << c.name;
        EXPECT_EQ(n.isEstimating, c.estimating) << c.name;
        EXPECT_EQ(n.fraction, c.fraction) << c.name;
        EXPECT_EQ(n.deleteBackpressure, c.backpressure) << c.name;
    }
}

TEST(ProgressModel, ZeroTotalsAreTheEngineShapeWithoutFraction) {
    wire::Progress p;
    auto n = ProgressModel::normalize(p);
    EXPECT_FALSE(n.isAsrShape);
    EXPECT_TRUE(n.isEstimating);
    EXPECT_EQ(n.fraction, std::nullopt);
    NormalizedProgress expected;
    expected.isEstimating = true;
    EXPECT_EQ(n, expected);
}

TEST(ProgressModel, EngineShapeClampsAndPicksPaths) {
    auto p = engine();
    p.set_current_copy_path("");
    p.set_eta_selected_seconds(-3);
    p.set_bytes_evaluated(5000);
    p.set_bytes_copied(-1);
    p.set_bytes_skipped(-1);
    p.set_items_deleted(-1);
    p.set_dirs_retime_checked(-2);
    p.set_dirs_retime_total(-2);
    p.set_scout_total_files(-9);
    auto n = ProgressModel::normalize(p);
    EXPECT_EQ(n.currentPath, "Users/ann/Music");
    EXPECT_EQ(n.copyPath, "");
    EXPECT_EQ(n.etaSeconds, 0);
    EXPECT_EQ(n.fraction, 1.0);
    EXPECT_EQ(n.bytesCopied, 0u);
    EXPECT_EQ(n.bytesUpToDate, 0u);
    EXPECT_EQ(n.itemsDeleted, 0);
    EXPECT_EQ(n.dirsRetimeChecked, 0);
    EXPECT_EQ(n.dirsRetimeTotal, 0);
    EXPECT_EQ(n.filesTotal, 0u);
}

TEST(ProgressModel, RateChoice) {
    const double inf = std::numeric_limits<double>::infinity();
    const double nan = std::numeric_limits<double>::quiet_NaN();
    struct Case {
        const char* name;
        bool workDone;
        bool windowValid;
        double window;
        double effective;
        std::uint64_t expected;
    };
    const Case cases[] = {
        {"window when valid", false, true, 2500.9, 1000, 2500},
        {"effective when window invalid", false, false, 2500, 1000.7, 1000},
        {"effective when window is zero", false, true, 0, 1000, 1000},
        {"effective when window is negative", false, true, -5, 1000, 1000},
        {"nothing usable", false, true, 0, -1, 0},
        {"infinite effective is unusable", false, false, 0, inf, 0},
        {"NaN effective is unusable", false, false, 0, nan, 0},
        {"work done ignores a valid window", true, true, 2500, 1000, 1000},
        {"work done without effective rate", true, true, 2500, 0, 0},
        {"work done with infinite effective", true, true, 2500, inf, 0},
    };
    for (const auto& c : cases) {
        auto p = engine();
        if (c.workDone) p.set_work_done_bytes(100);
        p.set_rate_window_valid(c.windowValid);
        p.set_rate_window_bps(c.window);
        p.set_rate_effective_bps(c.effective);
        EXPECT_EQ(ProgressModel::normalize(p).ratePerSec, c.expected) << c.name;

        // The replication shape chooses like the engine shape without work done.
        auto r = replication(10, 100, 1);
        r.set_rate_window_valid(c.windowValid);
        r.set_rate_window_bps(c.window);
        r.set_rate_effective_bps(c.effective);
        if (!c.workDone) {
            EXPECT_EQ(ProgressModel::normalize(r).ratePerSec, c.expected) << "replication: " << c.name;
        }
    }
    EXPECT_EQ(ProgressModel::wholeRate(1e30), std::numeric_limits<std::uint64_t>::max());
}

}  // namespace
