#include "QLProtocol/runners/BootablePolicy.h"
#include "QLProtocol/runners/DispatchingJobRunnerFactory.h"
#include "QLProtocol/runners/UnavailableJobRunnerFactory.h"
#include "QLProtocol/server/tests/FakeJobRunner.h"
#include "QLSupport/Log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ql {
namespace {

namespace v1 = ql4::transport::v1;
using testing::FakeJobRunnerFactory;
using ::testing::ElementsAreArray;
using Kind = DispatchingJobRunnerFactory::RunnerKind;

const std::string kRunHex = "000102030405060708090a0b0c0d0e0f";

v1::RunId runID() {
    v1::RunId id;
    std::string bytes;
    for (char c = 0; c < 16; ++c) bytes.push_back(c);
    id.set_value(bytes);
    return id;
}

// A copy from a physical volume to a physical volume, both with BSD names.
v1::CopyRequest physical(v1::DuringCopyMethod mode, bool bootable) {
    v1::CopyRequest r;
    r.set_tile_id("job");
    r.mutable_source()->mutable_key()->set_gpt_partition_guid(std::string(16, 's'));
    r.mutable_destination()->mutable_key()->set_gpt_partition_guid(std::string(16, 'd'));
    r.set_source_bsd_device("disk2s1");
    r.set_destination_bsd_device("disk3s1");
    r.set_during_copy(mode);
    r.set_as_bootable(bootable);
    return r;
}

std::string line(const std::string& text) { return "[dispatch] " + text; }

std::string dispatchLine(const std::string& runner, const std::string& mode, bool bootable, bool folderSrc,
                         bool folderDst, const std::string& srcBsd = "disk2s1", const std::string& dstBsd = "disk3s1") {
    auto b = [](bool v) { return v ? "true" : "false"; };
    return line("runner=" + runner + " mode=" + mode + " bootable=" + b(bootable) + " folder(src=" + b(folderSrc) +
                " dst=" + b(folderDst) + ") source(bsd=" + srcBsd + ") destination(bsd=" + dstBsd +
                ") runID=" + kRunHex);
}

const std::string kCatchUp =
    line("catch-up with erase-then-copy — coercing to Smart Update (a catch-up must never erase)");
const std::string kFolderDest = line(
    "folder destination with erase-then-copy — coercing to Smart Update (folder erase-then-copy is unsupported)");
const std::string kNetwork =
    line("network destination with erase-then-copy — coercing to Smart Update (a share cannot be erased)");
const std::string kImageErase =
    line("disk-image destination with erase-then-copy → QlcopyJobRunner (erases the volume inside the image)");
const std::string kImageBootable = line(
    "disk-image destination with a bootable copy — clearing bootable (a copy inside a disk image can't start up a "
    "Mac)");
const std::string kFolderSource = line(
    "folder source with a bootable erase-then-copy — clearing bootable and erasing the destination for a file-level "
    "copy (a folder can't be replicated; asr would copy the whole source volume)");
const std::string kPreview = line("preview → QlcopyJobRunner (dry-run; erase/asr suppressed)");
const std::string kDryRun = line("dry run → QlcopyJobRunner (evaluate only; erase/asr suppressed)");

TEST(Dispatch, ChoosesTheRunnerRewritesTheRequestAndLogsEachDecision) {
    struct Case {
        const char* name;
        v1::CopyRequest request;
        Kind kind;
        int duringCopy;  // as the runner receives it
        bool asBootable;
        std::vector<std::string> lines;
    };
    auto with = [](v1::CopyRequest r, auto change) {
        change(r);
        return r;
    };
    const auto erase = v1::DCM_ERASE_THEN_COPY;
    const auto smart = v1::DCM_SMART_UPDATE;
    const std::vector<Case> cases = {
        {"erase onto a physical volume", physical(erase, false), Kind::eraseAndCopy, erase, false,
         {dispatchLine("EraseAndCopyJobRunner", "dcmEraseThenCopy", false, false, false)}},
        {"bootable erase onto a physical volume", physical(erase, true), Kind::asr, erase, true,
         {dispatchLine("AsrJobRunner", "dcmEraseThenCopy", true, false, false)}},
        {"catch-up with erase (and a folder destination: the first rule wins)",
         with(physical(erase, true), [](auto& r) {
             r.set_is_catchup(true);
             r.set_destination_path("/Volumes/Backup/Mac");
         }),
         Kind::qlcopy, smart, false,
         {dispatchLine("QlcopyJobRunner(catch-up coerced from erase)", "dcmEraseThenCopy", true, false, true),
          kCatchUp}},
        {"erase onto a folder", with(physical(erase, false), [](auto& r) {
             r.mutable_destination()->set_subpath("Backups");
         }),
         Kind::qlcopy, smart, false,
         {dispatchLine("QlcopyJobRunner(folder-dest coerced from erase)", "dcmEraseThenCopy", false, false, true),
          kFolderDest}},
        {"erase onto a network share (the name does not look at the share)", with(physical(erase, false), [](auto& r) {
             r.mutable_destination()->mutable_key()->mutable_network_share()->set_url("smb://nas/backup");
             r.clear_destination_bsd_device();
         }),
         Kind::qlcopy, smart, false,
         {dispatchLine("EraseAndCopyJobRunner", "dcmEraseThenCopy", false, false, false, "disk2s1", "?"), kNetwork}},
        {"bootable erase into a disk image", with(physical(erase, true), [](auto& r) {
             r.mutable_destination()->mutable_key()->mutable_disk_image()->set_internal_guid(std::string(16, 'i'));
         }),
         Kind::qlcopy, erase, false,
         {dispatchLine("AsrJobRunner", "dcmEraseThenCopy", true, false, false), kImageBootable, kImageErase}},
        {"bootable Smart Update into a disk image", with(physical(smart, true), [](auto& r) {
             r.mutable_destination()->mutable_key()->mutable_disk_image()->set_internal_guid(std::string(16, 'i'));
         }),
         Kind::qlcopy, smart, false,
         {dispatchLine("QlcopyJobRunner", "dcmSmartUpdate", true, false, false), kImageBootable}},
        {"bootable erase from a folder", with(physical(erase, true), [](auto& r) {
             r.mutable_source()->set_subpath("Users/me");
         }),
         Kind::eraseAndCopy, erase, false,
         {dispatchLine("EraseAndCopyJobRunner(folder-source: bootable stripped)", "dcmEraseThenCopy", true, true,
                       false),
          kFolderSource}},
        {"preview of a bootable erase", with(physical(erase, true), [](auto& r) { r.set_preview(true); }),
         Kind::qlcopy, smart, true,
         {dispatchLine("AsrJobRunner", "dcmEraseThenCopy", true, false, false), kPreview}},
        {"dry run of an erase", with(physical(erase, false), [](auto& r) { r.set_dry_run(true); }), Kind::qlcopy,
         smart, false, {dispatchLine("EraseAndCopyJobRunner", "dcmEraseThenCopy", false, false, false), kDryRun}},
        {"an update method this server does not know is never an erase",
         with(physical(erase, true), [](auto& r) { r.set_during_copy(static_cast<v1::DuringCopyMethod>(9)); }),
         Kind::qlcopy, 9, true, {dispatchLine("QlcopyJobRunner", "UNRECOGNIZED(9)", true, false, false)}},
        {"plain Smart Update without BSD names", with(physical(smart, false), [](auto& r) {
             r.clear_source_bsd_device();
             r.clear_destination_bsd_device();
         }),
         Kind::qlcopy, smart, false, {dispatchLine("QlcopyJobRunner", "dcmSmartUpdate", false, false, false, "?", "?")}},
    };

    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto qlcopy = std::make_shared<FakeJobRunnerFactory>();
        auto asr = std::make_shared<FakeJobRunnerFactory>();
        auto eraseAndCopy = std::make_shared<FakeJobRunnerFactory>();
        DispatchingJobRunnerFactory dispatch(qlcopy, asr, eraseAndCopy);
        LogCapture logs;
        auto runner = dispatch.makeRunner(c.request, runID(), RunAuthority{});
        ASSERT_TRUE(runner);

        const std::map<Kind, FakeJobRunnerFactory*> factories = {
            {Kind::qlcopy, qlcopy.get()}, {Kind::asr, asr.get()}, {Kind::eraseAndCopy, eraseAndCopy.get()}};
        for (const auto& [kind, factory] : factories) EXPECT_EQ(factory->count(), kind == c.kind ? 1u : 0u);
        const auto& made = factories.at(c.kind)->made.at(0);
        EXPECT_EQ(made->request.during_copy(), c.duringCopy);
        EXPECT_EQ(made->request.as_bootable(), c.asBootable);
        EXPECT_EQ(made->runID.value(), runID().value());
        // Nothing else about the request changes.
        auto expected = c.request;
        expected.set_during_copy(static_cast<v1::DuringCopyMethod>(c.duringCopy));
        expected.set_as_bootable(c.asBootable);
        EXPECT_EQ(made->request.SerializeAsString(), expected.SerializeAsString());
        EXPECT_THAT(logs.lines(), ElementsAreArray(c.lines));
    }
}

// The one event of a runner that refuses at once.
std::vector<v1::ClonerEvent> drain(const std::shared_ptr<JobRunner>& runner) {
    auto events = runner->run();
    asio::io_context io;
    std::vector<v1::ClonerEvent> got;
    asio::co_spawn(
        io,
        [](JobRunner::Events::Consumer c, std::vector<v1::ClonerEvent>* out) -> asio::awaitable<void> {
            while (auto e = co_await c.next()) out->push_back(*e);
        }(std::move(events), &got),
        asio::detached);
    io.run();
    return got;
}

TEST(Dispatch, RunsThatCantGoAheadFailAtOnceWithTheirSentence) {
    const auto owner = RunAuthority::ownerRights(1001);
    struct Case {
        std::string name;
        v1::CopyRequest request;
        RunAuthority authority;
        bool viaDispatch;
        std::string message;
    };
    const std::vector<Case> cases = {
        {"a runner this build lacks", physical(v1::DCM_ERASE_THEN_COPY, false), {}, false,
         UnavailableJobRunnerFactory::kEraseThenCopyMessage},
        {"an erase with the owner's rights only", physical(v1::DCM_ERASE_THEN_COPY, false), owner, true,
         DispatchingJobRunnerFactory::kEraseNeedsApproval},
        {"a replication with the owner's rights only", physical(v1::DCM_ERASE_THEN_COPY, true), owner, true,
         DispatchingJobRunnerFactory::kReplicationNeedsApproval},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto fakes = std::make_shared<FakeJobRunnerFactory>();
        DispatchingJobRunnerFactory dispatch(fakes, fakes, fakes);
        UnavailableJobRunnerFactory unavailable(UnavailableJobRunnerFactory::kEraseThenCopyMessage);
        auto runner = c.viaDispatch ? dispatch.makeRunner(c.request, runID(), c.authority)
                                    : unavailable.makeRunner(c.request, runID(), c.authority);
        auto got = drain(runner);
        ASSERT_EQ(got.size(), 1u);
        EXPECT_EQ(got[0].failed().error_message(), c.message);
        EXPECT_EQ(fakes->count(), 0u);
    }
}

TEST(Dispatch, AFileCopyCarriesItsOwnersAuthorityToTheRunner) {
    auto qlcopy = std::make_shared<FakeJobRunnerFactory>();
    DispatchingJobRunnerFactory dispatch(qlcopy, std::make_shared<FakeJobRunnerFactory>(),
                                         std::make_shared<FakeJobRunnerFactory>());
    dispatch.makeRunner(physical(v1::DCM_SMART_UPDATE, false), runID(), RunAuthority::ownerRights(1001));
    ASSERT_EQ(qlcopy->authorities.size(), 1u);
    EXPECT_EQ(qlcopy->authorities[0], RunAuthority::ownerRights(1001));
}

TEST(BootablePolicy, ReplicatesOnlyTheRunningSystemOntoAPhysicalAPFSDisk) {
    const BootablePolicy::Facts all{.modeIsEraseThenCopy = true,
                                    .intent = true,
                                    .sourceIsFolder = false,
                                    .destinationIsFolder = false,
                                    .sourceIsAPFSVolumeGroup = true,
                                    .sourceIsBootedSystem = true,
                                    .sourceSnapshotUnsealed = false,
                                    .destinationIsNetworkShare = false,
                                    .destinationIsAPFS = true,
                                    .destinationIsPhysical = true};
    EXPECT_TRUE(BootablePolicy::replicates(all));
    // Flipping any one fact turns replication off.
    bool BootablePolicy::Facts::*fields[] = {
        &BootablePolicy::Facts::modeIsEraseThenCopy,       &BootablePolicy::Facts::intent,
        &BootablePolicy::Facts::sourceIsFolder,            &BootablePolicy::Facts::destinationIsFolder,
        &BootablePolicy::Facts::sourceIsAPFSVolumeGroup,   &BootablePolicy::Facts::sourceIsBootedSystem,
        &BootablePolicy::Facts::sourceSnapshotUnsealed,    &BootablePolicy::Facts::destinationIsNetworkShare,
        &BootablePolicy::Facts::destinationIsAPFS,         &BootablePolicy::Facts::destinationIsPhysical};
    for (auto field : fields) {
        auto facts = all;
        facts.*field = !(facts.*field);
        EXPECT_FALSE(BootablePolicy::replicates(facts));
        EXPECT_NE(facts, all);
    }
}

TEST(BootablePolicy, KeepsBootableOnlyForAWholeSystemSmartUpdate) {
    const BootablePolicy::KeptFacts all{.modeIsSmartUpdate = true,
                                        .sourceIsFolder = false,
                                        .destinationIsFolder = false,
                                        .sourceIsAPFSVolumeGroup = true,
                                        .destinationIsAPFS = true,
                                        .destinationIsAPFSVolumeGroup = true,
                                        .destinationIsPhysical = true,
                                        .osBuildsKnownMismatched = false};
    EXPECT_TRUE(BootablePolicy::keepsBootable(all));
    bool BootablePolicy::KeptFacts::*fields[] = {
        &BootablePolicy::KeptFacts::modeIsSmartUpdate,        &BootablePolicy::KeptFacts::sourceIsFolder,
        &BootablePolicy::KeptFacts::destinationIsFolder,      &BootablePolicy::KeptFacts::sourceIsAPFSVolumeGroup,
        &BootablePolicy::KeptFacts::destinationIsAPFS,        &BootablePolicy::KeptFacts::destinationIsAPFSVolumeGroup,
        &BootablePolicy::KeptFacts::destinationIsPhysical,    &BootablePolicy::KeptFacts::osBuildsKnownMismatched};
    for (auto field : fields) {
        auto facts = all;
        facts.*field = !(facts.*field);
        EXPECT_FALSE(BootablePolicy::keepsBootable(facts));
    }
    EXPECT_EQ(BootablePolicy::partitionSchemeRefusal("“Lacie”"),
              "“Lacie” isn't partitioned in a way that can hold a bootable copy, and making one would erase the whole "
              "drive—including any other volumes on it. Choose a different destination, or reformat this drive using "
              "GUID Partition Map to make bootable copies to it.");
}

}  // namespace
}  // namespace ql
