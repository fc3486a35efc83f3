// The file-copy runner's sentences and small pure pieces: cancel reasons, refusals, the firmlink
// list, the on-success gate.

#include "QLProtocol/runners/CancelReason.h"
#include "QLProtocol/runners/NoOpOnSuccessExecutor.h"
#include "QLProtocol/runners/PayloadBuilder.h"
#include "QLProtocol/runners/QlcopyJobRunner.h"
#include "QLProtocol/runners/RunnerError.h"
#include "QLSupport/Log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ql {
namespace {

namespace wire = ql4::transport::v1;
using ::testing::ElementsAre;

struct ReasonCase {
    CancelReason reason;
    std::string description;
    std::optional<std::string> message;
};

TEST(CancelReason, eachReasonEndsTheRunWithItsSentence) {
    const std::vector<ReasonCase> cases = {
        {CancelReason::userRequested(), "userRequested", std::nullopt},
        {CancelReason::sourceRemoved(), "sourceRemoved",
         "The source was disconnected during the copy. Quillo stopped immediately to protect your backup."},
        {CancelReason::destinationRemoved(), "destinationRemoved",
         "The destination was disconnected during the copy. Quillo stopped immediately to protect your data."},
        {CancelReason::sourceIdentityChanged(), "sourceIdentityChanged",
         "A different volume replaced the source during the copy. Quillo stopped immediately to avoid copying from "
         "the wrong drive."},
        {CancelReason::destinationIdentityChanged(), "destinationIdentityChanged",
         "A different volume replaced the destination during the copy. Quillo stopped immediately to avoid writing "
         "to the wrong drive."},
        {CancelReason::imageHostDisconnected("Studio NAS"), "imageHostDisconnected(Studio NAS)",
         "“Studio NAS” disconnected while the backup was writing to the disk image. Quillo stopped the copy "
         "immediately. Reconnect it, then run the backup again. If the image doesn't open, check it in Disk Utility "
         "with Disk First Aid."},
        {CancelReason::imageHostOutOfSpace("Studio NAS"), "imageHostOutOfSpace(Studio NAS)",
         "“Studio NAS” ran out of space, so the backup stopped. The disk image itself isn't full: the storage holding "
         "it is. Free up space, then run the backup again."},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.reason.description(), c.description);
        EXPECT_EQ(c.reason.message(), c.message) << c.description;
        EXPECT_EQ(c.reason.isUserRequested(), !c.message.has_value());
    }
}

TEST(RunnerError, sentencesNameWhatIsNotAvailableOrWrong) {
    const std::vector<std::pair<RunnerError, std::string>> cases = {
        {RunnerError::diskImageSupportUnavailable(EndpointSide::destination),
         "This version of Quillo can't examine disk images. Choose a different destination."},
        {RunnerError::imageInsideSource("“Work.dmg”"),
         "“Work.dmg” is stored on the very thing being backed up, so the backup would copy the disk image into itself. "
         "Choose a disk image that lives on a different drive or server."},
        {RunnerError::diskImageAmbiguousVolume("“Work.dmg”", 2),
         "“Work.dmg” holds more than one volume that could be the backup, and Quillo can't tell which one to write "
         "to. Use a disk image that holds a single volume."},
        {RunnerError::imageEraseWouldLoseTheImagesIdentity("“Work.dmg”"),
         "Quillo can’t empty the disk image “Work.dmg” in place—doing that would lose track of which disk image this "
         "backup uses. Nothing inside the image was erased. Create a new disk image and back up to that one instead."},
        {RunnerError::sourceFolderMissing("/Volumes/Data/Projects"),
         "source folder /Volumes/Data/Projects does not exist (moved or deleted?)"},
        {RunnerError::pathOnOtherVolume(EndpointSide::source, "/mnt/x/y", "/mnt/x"),
         "/mnt/x/y is on /mnt/x, not the source volume"},
        {RunnerError::destinationNotAFolder("/b/c"), "destination path /b/c exists but is not a folder"},
        {RunnerError::destinationParentMissing("/b/c/d", "/b/c"),
         "destination folder /b/c/d is missing and its parent /b/c does not exist"},
        {RunnerError::destinationFolderUnprovable("Backups"),
         "\"Backups\" doesn't exist, and Quillo can't confirm where it belongs on this drive, so it won't risk creating "
         "it in the wrong place. Make sure the drive is fully connected and mounted, then run again."},
        {RunnerError::eraseThenCopyMisrouted(),
         "QlcopyJobRunner refuses Erase-then-copy (asr) — route to the M7 asr runner"},
        {RunnerError::destinationNotMounted("“Backup”"),
         "The destination “Backup” isn't mounted, and this version of Quillo can't mount it by itself. Mount it, then "
         "run the copy again."},
        {RunnerError::endpointUnresolved(EndpointSide::destination, "“Backup”", "", true),
         "The destination “Backup” isn't connected. Connect it, then run the copy again."},
    };
    for (const auto& [error, text] : cases) EXPECT_EQ(error.message(), text) << error.caseName();
}

TEST(RunnerError, onlyAnAbsentDestinationAsksTheClientToConnectIt) {
    EXPECT_TRUE(RunnerError::destinationNotMounted("x").destinationNotConnected());
    EXPECT_TRUE(RunnerError::endpointUnresolved(EndpointSide::destination, "x", "", true).destinationNotConnected());
    EXPECT_FALSE(RunnerError::endpointUnresolved(EndpointSide::source, "x", "", true).destinationNotConnected());
    EXPECT_FALSE(RunnerError::endpointUnresolved(EndpointSide::destination, "x", "probe", false).destinationNotConnected());
    EXPECT_FALSE(RunnerError::identityMismatch(EndpointSide::destination, "x", "d").destinationNotConnected());
}

TEST(QlcopyJobRunner, firmlinkEntriesAreTheFirstColumnWithoutItsSlash) {
    EXPECT_THAT(QlcopyJobRunner::firmlinkEntries("/AppleInternal\tAppleInternal\n/Applications\tApplications\r\n"
                                                 "\n/Users\tUsers\n/usr/local\tusr/local"),
                ElementsAre("AppleInternal", "Applications", "Users", "usr/local"));
    EXPECT_TRUE(QlcopyJobRunner::firmlinkEntries("").empty());
}

TEST(PayloadBuilder, onlyCompletedFailedAndCancelledAreTerminal) {
    EXPECT_TRUE(PayloadBuilder::isTerminal(PayloadBuilder::completedPayload(false)));
    EXPECT_TRUE(PayloadBuilder::isTerminal(PayloadBuilder::failedPayload("x", "prepare")));
    EXPECT_TRUE(PayloadBuilder::isTerminal(PayloadBuilder::cancelledPayload()));
    EXPECT_FALSE(PayloadBuilder::isTerminal(PayloadBuilder::pausedPayload()));
    EXPECT_FALSE(PayloadBuilder::isTerminal(PayloadBuilder::phaseEndPayload("files", false)));

    wire::RunCompleted summary;
    summary.set_items_copied(7);
    auto completed = PayloadBuilder::completedPayload(true, summary);
    EXPECT_EQ(completed.completed().items_copied(), 7);
    EXPECT_TRUE(completed.completed().preview_destination_absent());
}

TEST(NoOpOnSuccessExecutor, refusesAfterAFailureAndSaysWhatItDroppedAfterSuccess) {
    asio::io_context io;
    NoOpOnSuccessExecutor executor;
    LogCapture capture;
    auto perform = [&](OnSuccessExecutor::RunOutcome outcome) {
        std::vector<wire::OnSuccessAction> actions = {wire::OSA_EJECT_DESTINATION, wire::OSA_SEND_NOTIFICATION,
                                                      wire::OSA_SLEEP};
        OnSuccessExecutor::RunFacts facts;
        facts.tileName = "Photos";
        asio::co_spawn(io, executor.perform(std::move(actions), outcome, std::move(facts)), asio::detached);
        io.restart();
        io.run();
    };
    perform(OnSuccessExecutor::RunOutcome::failed);
    EXPECT_TRUE(capture.contains("[on-success] REFUSED — the run ended failed; eject-destination, notification, sleep"));
    perform(OnSuccessExecutor::RunOutcome::completed);
    EXPECT_TRUE(capture.contains("[notification stub] copy Photos completed"));
    EXPECT_TRUE(capture.contains("[on-success] coordinator not wired; dropped eject-destination, sleep"));
}

}  // namespace
}  // namespace ql
