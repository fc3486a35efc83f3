#include "QLProtocol/server/RunLog.h"
#include "QLProtocol/server/RunRecordBuilder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ql {
namespace {

namespace v1 = ql4::transport::v1;
using ::testing::ElementsAre;
using namespace std::chrono_literals;

TEST(RunLog, KeepsHeadAndTailAroundOneGapLine) {
    RunLog log("[run 1]", 8);  // two head lines, six tail lines
    for (int i = 1; i <= 8; ++i) log.append("line " + std::to_string(i));
    EXPECT_EQ(log.droppedLineCount(), 0u);
    EXPECT_EQ(log.lines().size(), 8u);
    for (int i = 9; i <= 20; ++i) log.append("line " + std::to_string(i));
    EXPECT_EQ(log.droppedLineCount(), 12u);
    EXPECT_EQ(log.droppedGapIndex(), 2u);
    EXPECT_THAT(log.lines(), ElementsAre("[run 1] line 1", "[run 1] line 2", "[… 12 log lines omitted here …]",
                                         "[run 1] line 15", "[run 1] line 16", "[run 1] line 17", "[run 1] line 18",
                                         "[run 1] line 19", "[run 1] line 20"));
    EXPECT_EQ(log.text().substr(0, 31), "[run 1] line 1\n[run 1] line 2\n[");
}

TEST(RunLog, DescribesEventsInWords) {
    auto event = [](auto fill) {
        v1::ClonerEvent e;
        fill(e);
        return e;
    };
    struct Case {
        v1::ClonerEvent event;
        std::optional<std::string> words;
    };
    const Case cases[] = {
        {event([](auto& e) { e.mutable_queued()->set_position_in_queue(2); }), "queued at position 2"},
        {event([](auto& e) { e.mutable_started(); }), "started"},
        {event([](auto& e) { e.mutable_phase_start()->set_name("copyFiles"); }), "phaseStart: copyFiles"},
        {event([](auto& e) {
             e.mutable_phase_end()->set_name("copyFiles");
             e.mutable_phase_end()->set_succeeded(true);
         }),
         "phaseEnd: copyFiles succeeded=true"},
        {event([](auto& e) { e.mutable_pause_requested(); }), "pauseRequested"},
        {event([](auto& e) { e.mutable_paused(); }), "paused"},
        {event([](auto& e) { e.mutable_awaiting_unlock()->set_display_name("Lacie"); }), "awaitingUnlock: Lacie"},
        {event([](auto& e) {
             e.mutable_encrypt_destination()->set_display_name("Lacie");
             e.mutable_encrypt_destination()->set_bsd_device("disk4s2");
         }),
         "encryptDestination: Lacie bsd=disk4s2"},
        {event([](auto& e) {
             e.mutable_awaiting_connect()->set_display_name("NAS");
             e.mutable_awaiting_connect()->set_is_source(false);
         }),
         "awaitingConnect: NAS source=false"},
        {event([](auto& e) {
             e.mutable_awaiting_image_passphrase()->set_display_name("Backup");
             e.mutable_awaiting_image_passphrase()->set_image_name("Backup.sparsebundle");
         }),
         "awaitingImagePassphrase: Backup image=Backup.sparsebundle"},
        {event([](auto& e) {
             e.mutable_image_probe_result()->set_writable(true);
             e.mutable_image_probe_result()->set_encrypted(false);
             e.mutable_image_probe_result()->set_was_already_attached(true);
         }),
         "imageProbeResult: writable=true encrypted=false alreadyAttached=true"},
        {event([](auto& e) {
             e.mutable_completed()->set_elapsed_nanos(5);
             e.mutable_completed()->set_bytes_copied(7);
         }),
         "completed elapsedNanos=5 bytesCopied=7"},
        {event([](auto& e) { e.mutable_failed()->set_error_message("The disk is full."); }),
         "failed: The disk is full."},
        {event([](auto& e) { e.mutable_log()->set_text("[qlcopy-phase] main work started"); }),
         "[qlcopy-phase] main work started"},
        {event([](auto& e) { e.mutable_progress()->set_bytes_copied(1); }), std::nullopt},
        {event([](auto& e) { e.mutable_preview_item()->set_path("/a"); }), std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.event.ShortDebugString());
        EXPECT_EQ(RunLog::describe(c.event), c.words);
    }
}

TEST(RunRecordBuilder, Summaries) {
    v1::ClonerEvent completed;
    completed.mutable_completed()->set_bytes_copied(1048576);
    completed.mutable_completed()->set_elapsed_nanos(std::chrono::nanoseconds(125s).count());
    EXPECT_EQ(RunRecordBuilder::summary(completed, 0s), "Copied 1048576 bytes in 2m 05s");
    completed.mutable_completed()->set_deferred_count(3);
    EXPECT_EQ(RunRecordBuilder::summary(completed, 0s),
              "Copied 1048576 bytes in 2m 05s; 3 locked files skipped and deferred to an automatic follow-up run");
    completed.mutable_completed()->set_elapsed_nanos(0);
    completed.mutable_completed()->set_deferred_count(0);
    EXPECT_EQ(RunRecordBuilder::summary(completed, 3723s), "Copied 1048576 bytes in 1h 02m 03s")
        << "without the engine's own duration the run's wall time counts";

    v1::ClonerEvent cancelled;
    cancelled.mutable_cancelled();
    EXPECT_EQ(RunRecordBuilder::summary(cancelled, 1s), "Cancelled by user");

    v1::ClonerEvent failed;
    failed.mutable_failed()->set_error_message("The destination disappeared.");
    EXPECT_EQ(RunRecordBuilder::summary(failed, 1s), "Failed: The destination disappeared.");
    failed.mutable_failed()->set_failed_phase("copyFiles");
    EXPECT_EQ(RunRecordBuilder::summary(failed, 1s), "Failed in copyFiles: The destination disappeared.");
}

TEST(RunRecordBuilder, DurationsAndModes) {
    EXPECT_EQ(RunRecordBuilder::formatDuration(400ms), "0.4s");
    EXPECT_EQ(RunRecordBuilder::formatDuration(42s), "42s");
    EXPECT_EQ(RunRecordBuilder::formatDuration(-5s), "0.0s");
    EXPECT_EQ(RunRecordBuilder::copyMode(v1::DCM_ERASE_THEN_COPY), v1::COPY_MODE_ERASE_THEN_COPY);
    EXPECT_EQ(RunRecordBuilder::copyMode(v1::DCM_SMART_UPDATE), v1::COPY_MODE_SMART_UPDATE);
    EXPECT_EQ(RunRecordBuilder::copyMode(v1::DCM_UNSPECIFIED), std::nullopt);
    EXPECT_EQ(RunRecordBuilder::copyMode(static_cast<v1::DuringCopyMethod>(9)), std::nullopt);

    v1::ClonerEvent failed;
    failed.mutable_failed()->set_destination_not_connected(true);
    RunRecordBuilder::Facts facts;
    EXPECT_EQ(RunRecordBuilder::build(facts, failed, "").outcome(), v1::RunRecord::OUTCOME_DESTINATION_NOT_CONNECTED);
}

}  // namespace
}  // namespace ql
