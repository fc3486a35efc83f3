// Runs are private like jobs: the copy service, in front of a real job manager with scripted
// runners, answers callers by the job's owner. Callers are made up here (the socket's peer
// credentials are read by the transport, tested on its own and in the system tests).

#include "QLProtocol/runners/LiveCopyServiceProvider.h"
#include "QLProtocol/server/access/ApprovedRequest.h"
#include "QLProtocol/server/tests/JobManagerTestSupport.h"

#include <gtest/gtest.h>

#include <map>

namespace ql::testing {
namespace {

constexpr std::uint32_t kAnn = 1001;
constexpr std::uint32_t kBob = 1002;

CallContext callerWith(std::uint32_t uid) {
    CallContext caller;
    caller.uid = uid;
    caller.gid = uid;
    caller.pid = 4242;
    return caller;
}

v1::CopyTile storedJob(const std::string& id, std::uint32_t owner, bool approved = false) {
    v1::CopyTile tile;
    tile.set_id(id);
    tile.set_owner_uid(owner);
    tile.set_approved_as_administrator(approved);
    tile.set_copy_mode(v1::COPY_MODE_SMART_UPDATE);
    tile.mutable_source()->set_volume_uuid(vol('s'));
    tile.mutable_source()->set_partition_guid(vol('s'));
    tile.mutable_source()->set_subpath("home/ann/Documents");
    tile.mutable_destination()->set_volume_uuid(vol('d'));
    tile.mutable_destination()->set_partition_guid(vol('d'));
    tile.mutable_destination()->set_subpath("backups/ann");
    return tile;
}

asio::awaitable<std::optional<v1::CopyTile>> lookUp(std::shared_ptr<std::map<std::string, v1::CopyTile>> jobs,
                                                    std::string id) {
    auto it = jobs->find(id);
    if (it == jobs->end()) co_return std::nullopt;
    co_return it->second;
}

class RunPrivacy : public ::testing::Test {
protected:
    RunPrivacy() {
        (*jobs)["ann-job"] = storedJob("ann-job", kAnn);
        (*jobs)["ann-approved"] = storedJob("ann-approved", kAnn, true);
        (*jobs)["root-job"] = storedJob("root-job", 0);
        LiveCopyServiceProvider::Collaborators deps;
        deps.jobManager = harness.manager;
        deps.access = JobAccess(0);
        deps.jobs = [jobs = jobs](std::string id) { return lookUp(jobs, std::move(id)); };
        provider = std::make_shared<LiveCopyServiceProvider>(deps);
    }

    // Submits a copy as `uid`; the run id, or the refusal's text.
    tl::expected<std::string, std::string> submit(std::uint32_t uid, v1::CopyRequest request) {
        auto stream = harness.await(provider->runCloner(callerWith(uid), std::move(request)));
        if (!stream) return tl::unexpected(stream.error().message);
        auto events = harness.follow(std::move(*stream));
        if (events->events.empty()) return tl::unexpected(std::string("no events"));
        return events->events.front().run_id().value();
    }

    JobManagerHarness harness;
    std::shared_ptr<std::map<std::string, v1::CopyTile>> jobs = std::make_shared<std::map<std::string, v1::CopyTile>>();
    std::shared_ptr<LiveCopyServiceProvider> provider;
};

TEST_F(RunPrivacy, EachRunGetsItsRightsFromTheStoredJobNeverFromTheClient) {
    struct Case {
        std::string job;
        std::uint32_t caller;
        RunAuthority expected;
    };
    const std::vector<Case> cases = {
        {"ann-job", kAnn, RunAuthority::ownerRights(kAnn)},
        {"ann-job", 0, RunAuthority::ownerRights(kAnn)},  // root runs Ann's job with Ann's rights
        {"ann-approved", kAnn, RunAuthority::fullReach(kAnn)},
        {"root-job", 0, RunAuthority::fullReach(0)},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.job + " by uid " + std::to_string(c.caller));
        auto request = copyRequest(c.job, 's', 'd');
        auto run = submit(c.caller, request);
        ASSERT_TRUE(run) << run.error();
        ASSERT_FALSE(harness.factory->authorities.empty());
        EXPECT_EQ(harness.factory->authorities.back(), c.expected);
        harness.factory->made.back()->complete();
        harness.settle();
    }
}

TEST_F(RunPrivacy, SomeoneElsesJobOrRunAnswersExactlyLikeAMissingOne) {
    auto annRun = submit(kAnn, copyRequest("ann-job", 's', 'd'));
    ASSERT_TRUE(annRun) << annRun.error();
    const auto missingJob = "There is no copy job with the id ann-job.";

    // Starting or previewing Ann's job.
    EXPECT_EQ(submit(kBob, copyRequest("ann-job", 's', 'd')).error(), missingJob);
    auto preview = harness.await(provider->previewRun(callerWith(kBob), copyRequest("ann-job", 's', 'd')));
    ASSERT_FALSE(preview);
    EXPECT_EQ(preview.error().message, missingJob);
    EXPECT_EQ(submit(kBob, copyRequest("no-such-job", 's', 'd')).error(),
              "There is no copy job with the id no-such-job.");

    // Controlling and joining Ann's run: the same answers as for a run id nobody has.
    v1::RunControlRequest control;
    control.mutable_run_id()->set_value(*annRun);
    v1::RunControlRequest unknown;
    unknown.mutable_run_id()->set_value(vol('z'));
    using Control = UnaryResult<v1::RunControlResponse> (LiveCopyServiceProvider::*)(CallContext,
                                                                                v1::RunControlRequest);
    for (Control method : {Control(&LiveCopyServiceProvider::cancelRun), Control(&LiveCopyServiceProvider::pauseRun),
                           Control(&LiveCopyServiceProvider::resumeRun)}) {
        auto bob = harness.await(((*provider).*method)(callerWith(kBob), control));
        auto nobody = harness.await(((*provider).*method)(callerWith(kBob), unknown));
        ASSERT_TRUE(bob && nobody);
        EXPECT_FALSE(bob->ok());
        EXPECT_EQ(bob->error_message(), nobody->error_message());
    }
    v1::JoinRunRequest join;
    *join.mutable_run_id() = control.run_id();
    auto joined = harness.await(provider->joinRun(callerWith(kBob), join));
    ASSERT_FALSE(joined);
    EXPECT_NE(joined.error().message.find("no run with id"), std::string::npos);

    // Listing: Bob sees nothing, Ann and root see the run.
    auto listed = [&](std::uint32_t uid) {
        auto answer = harness.await(provider->listActiveRuns(callerWith(uid), {}));
        return answer ? answer->runs_size() : -1;
    };
    EXPECT_EQ(listed(kBob), 0);
    EXPECT_EQ(listed(kAnn), 1);
    EXPECT_EQ(listed(0), 1);

    // Ann herself may cancel it.
    auto cancelled = harness.await(provider->cancelRun(callerWith(kAnn), control));
    ASSERT_TRUE(cancelled);
    EXPECT_TRUE(cancelled->ok());
}

TEST_F(RunPrivacy, AnApprovedJobCopiesExactlyWhatWasApproved) {
    // The client's suggested paths are dropped; the stored job's folders are used.
    auto request = copyRequest("ann-approved", 's', 'd');
    request.set_source_path("/root");
    request.set_destination_path("/etc");
    request.mutable_source()->set_subpath("root");
    ASSERT_TRUE(submit(kAnn, request));
    const auto& sent = harness.factory->made.back()->request;
    EXPECT_EQ(sent.source_path(), "");
    EXPECT_EQ(sent.destination_path(), "");
    EXPECT_EQ(sent.source().subpath(), "home/ann/Documents");
    EXPECT_EQ(sent.destination().subpath(), "backups/ann");
    harness.factory->made.back()->complete();
    harness.settle();

    // Another mode or another rule than the approved one is refused.
    auto newer = copyRequest("ann-approved", 's', 'd');
    newer.set_during_copy(v1::DCM_COPY_NEWER);
    EXPECT_EQ(submit(kAnn, newer).error(), ApprovedRequest::mismatch("a different copy mode"));
    (*jobs)["ann-approved"].set_copy_rule_filename("Backup all files.dset");
    auto otherRule = copyRequest("ann-approved", 's', 'd');
    otherRule.set_copy_script_path("/home/ann/Everything.dset");
    EXPECT_EQ(submit(kAnn, otherRule).error(), ApprovedRequest::mismatch("a different copy rule"));
}

}  // namespace
}  // namespace ql::testing
