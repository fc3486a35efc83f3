#include "QLProtocol/server/approval/LivePolkitApproval.h"
#include "QLProtocol/server/approval/tests/PrivatePolkit.h"
#include "QLSupport/Log.h"

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string>

namespace ql {
namespace {

using testing::PrivatePolkit;
using testing::ProcessAsUser;
using testing::ScopedEnvironment;
using testing::TestUser;
using Kind = ApprovalVerdict::Kind;

constexpr const char* kCannotAsk = "Quillo couldn’t ask for an administrator’s approval: ";

// Approves the first test user and denies the second, for our action only.
std::string approveARulesDenyB() {
    return fmt::format(R"(polkit.addRule(function(action, subject) {{
    if (action.id != "{}") return polkit.Result.NOT_HANDLED;
    if (subject.user == "quillo-test-a") return polkit.Result.YES;
    if (subject.user == "quillo-test-b") return polkit.Result.NO;
    return polkit.Result.NOT_HANDLED;
}});
)",
                       copyAsAdministratorAction());
}

// Runs checks against whatever DBUS_SYSTEM_BUS_ADDRESS names, one io_context turn at a time,
// and holds the house rule of one log line per decision.
class Checker {
public:
    explicit Checker(LivePolkitApproval::Options options = {}) : approval_(pool_, options) {}

    ApprovalVerdict check(const ApprovalSubject& subject, const std::string& action = copyAsAdministratorAction(),
                          bool interactive = true) {
        LogCapture log(/*echo=*/true);
        std::optional<ApprovalVerdict> verdict;
        std::exception_ptr error;
        asio::co_spawn(io_, approval_.check(subject, action, interactive),
                       [&](std::exception_ptr e, ApprovalVerdict v) {
                           error = e;
                           verdict = std::move(v);
                       });
        auto guard = asio::make_work_guard(io_);
        io_.restart();
        while (!verdict && !error) io_.run_one();
        if (error) std::rethrow_exception(error);
        const auto lines = log.lines();
        EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [](const std::string& l) { return l.starts_with("[approval]"); }),
                  1)
            << "one [approval] line per decision";
        return *verdict;
    }

private:
    asio::io_context io_;
    BlockingPool pool_{1};
    LivePolkitApproval approval_;
};

// The private bus with polkitd, the two test users and DBUS_SYSTEM_BUS_ADDRESS pointing at
// the bus. Derived fixtures pick the rules.
class PolkitFixture : public ::testing::Test {
protected:
    void start(std::optional<std::string> rules, bool startPolkitd = true) {
        if (auto why = PrivatePolkit::unavailableReason()) GTEST_SKIP() << *why;
        auto a = testing::ensureTestUser("quillo-test-a");
        auto b = testing::ensureTestUser("quillo-test-b");
        ASSERT_TRUE(a && b) << (a ? b.error() : a.error());
        userA_ = *a;
        userB_ = *b;
        polkit_ = std::make_unique<PrivatePolkit>(
            PrivatePolkit::Options{{QL_COPY_AS_ADMINISTRATOR_POLICY_FILE}, std::move(rules), startPolkitd});
        ASSERT_TRUE(polkit_->ok()) << polkit_->error();
        bus_.emplace("DBUS_SYSTEM_BUS_ADDRESS", polkit_->busAddress());
    }

    ApprovalSubject processOf(const TestUser& user) {
        auto process = ProcessAsUser::start(user);
        EXPECT_TRUE(process) << (process ? "" : process.error());
        if (!process) return {};
        auto subject = process->subject();
        processes_.push_back(std::move(*process));
        return subject;
    }

    TestUser userA_, userB_;
    std::unique_ptr<PrivatePolkit> polkit_;
    std::optional<ScopedEnvironment> bus_;
    std::vector<ProcessAsUser> processes_;
    Checker checker_;
};

class ApprovalWithRules : public PolkitFixture {
protected:
    void SetUp() override { start(approveARulesDenyB()); }
};

TEST_F(ApprovalWithRules, ApprovesAProcessOfTheApprovedUser) {
    const auto subject = processOf(userA_);
    for (bool interactive : {true, false}) {
        EXPECT_EQ(checker_.check(subject, copyAsAdministratorAction(), interactive), ApprovalVerdict::approved())
            << "interactive: " << interactive << "\npolkitd: " << polkit_->polkitdLog();
    }
}

TEST_F(ApprovalWithRules, DeniesAProcessOfTheDeniedUser) {
    const auto subject = processOf(userB_);
    for (bool interactive : {true, false}) {
        const auto verdict = checker_.check(subject, copyAsAdministratorAction(), interactive);
        EXPECT_EQ(verdict.kind, Kind::denied) << "interactive: " << interactive << ": " << verdict.detail;
        EXPECT_EQ(verdict.detail, "The system’s authorization policy doesn’t let you copy as administrator.");
    }
}

// polkit judges the uid a root caller hands it, whatever process the pid names, so a subject
// must be checked against its process before polkit sees it.
TEST_F(ApprovalWithRules, RefusesASubjectThatIsNotItsProcess) {
    const auto a = processOf(userA_);
    const auto b = processOf(userB_);
    ApprovalSubject ended{};
    {
        auto gone = ProcessAsUser::start(userA_);
        ASSERT_TRUE(gone) << gone.error();
        ended = gone->subject();
    }
    struct Case {
        const char* name;
        ApprovalSubject subject;
    };
    const Case cases[] = {
        {"the denied user's process claimed by the approved user", {a.uid, b.pid, b.processStartTime}},
        {"the approved user's pid with another start time", {a.uid, a.pid, a.processStartTime + 1}},
        {"the approved user's pid with an unknown start time", {a.uid, a.pid, 0}},
        {"a process that has ended", ended},
        {"no pid", {a.uid, 0, a.processStartTime}},
    };
    for (const auto& c : cases) {
        const auto verdict = checker_.check(c.subject);
        EXPECT_EQ(verdict.kind, Kind::denied) << c.name << ": " << verdict.detail;
        EXPECT_NE(verdict.detail.find("isn’t the one that connected"), std::string::npos) << c.name;
    }
}

// polkit 122 answers an action it has no definition for with an error
// ("Action … is not registered"), not with "not authorized".
TEST_F(ApprovalWithRules, AnActionPolkitDoesNotKnowIsUnavailable) {
    const auto verdict = checker_.check(processOf(userA_), "com.ortolan.Quillo4.no-such-action");
    EXPECT_EQ(verdict.kind, Kind::unavailable);
    EXPECT_TRUE(verdict.detail.starts_with(std::string(kCannotAsk) +
                                           "the system’s authorization service (polkit) refused the request ("))
        << verdict.detail;
    EXPECT_NE(verdict.detail.find("com.ortolan.Quillo4.no-such-action"), std::string::npos) << verdict.detail;
}

// Without rules the action's defaults decide: auth_admin for a subject outside any login
// session, which needs an authentication agent nobody is running here.
class ApprovalWithDefaults : public PolkitFixture {
protected:
    void SetUp() override { start(std::nullopt); }
};

TEST_F(ApprovalWithDefaults, DeniesAUserWhenNoAgentCanAskForThePassword) {
    const auto subject = processOf(userA_);
    struct Case {
        bool interactive;
        const char* sentence;
    };
    const Case cases[] = {
        {true, "Copying as administrator needs an administrator’s password, and there was no authentication agent to "
               "ask for it."},
        {false, "Copying as administrator needs an administrator’s password, and this request couldn’t ask for one."},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(checker_.check(subject, copyAsAdministratorAction(), c.interactive), ApprovalVerdict::denied(c.sentence))
            << "interactive: " << c.interactive;
    }
}

// polkit authorizes uid 0 for every action it knows, whatever the defaults.
TEST_F(ApprovalWithDefaults, ApprovesRoot) {
    EXPECT_EQ(checker_.check(testing::subjectOfThisProcess()), ApprovalVerdict::approved());
}

class ApprovalWithoutPolkitd : public PolkitFixture {
protected:
    void SetUp() override { start(std::nullopt, /*startPolkitd=*/false); }
};

TEST_F(ApprovalWithoutPolkitd, IsUnavailableWhenNobodyOwnsPolkitsName) {
    const auto verdict = checker_.check(testing::subjectOfThisProcess());
    EXPECT_EQ(verdict.kind, Kind::unavailable);
    EXPECT_TRUE(verdict.detail.starts_with(std::string(kCannotAsk) +
                                           "the system’s authorization service (polkit) did not answer ("))
        << verdict.detail;
}

// Someone owns polkit's name but never answers: the call gives up after the configured time.
TEST_F(ApprovalWithoutPolkitd, GivesUpAfterTheTimeout) {
    sd_bus* squatter = nullptr;
    ASSERT_GE(sd_bus_new(&squatter), 0);
    std::unique_ptr<sd_bus, decltype(&sd_bus_flush_close_unref)> owned(squatter, &sd_bus_flush_close_unref);
    ASSERT_GE(sd_bus_set_address(squatter, polkit_->busAddress().c_str()), 0);
    ASSERT_GE(sd_bus_set_bus_client(squatter, 1), 0);
    ASSERT_GE(sd_bus_start(squatter), 0);
    ASSERT_GE(sd_bus_request_name(squatter, "org.freedesktop.PolicyKit1", 0), 0);

    Checker impatient(LivePolkitApproval::Options{std::chrono::seconds(1)});
    const auto started = std::chrono::steady_clock::now();
    const auto verdict = impatient.check(testing::subjectOfThisProcess());
    const auto waited = std::chrono::steady_clock::now() - started;
    EXPECT_EQ(verdict, ApprovalVerdict::unavailable(
                           std::string(kCannotAsk) +
                           "the system’s authorization service (polkit) did not answer within 1 second."));
    EXPECT_GE(waited, std::chrono::milliseconds(900));
    EXPECT_LT(waited, std::chrono::seconds(10));
}

TEST(ApprovalWithoutBus, IsUnavailableWhenTheSystemBusCannotBeReached) {
    ScopedEnvironment bus("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/quillo-test/bus.sock");
    Checker checker;
    const auto verdict = checker.check(testing::subjectOfThisProcess());
    EXPECT_EQ(verdict.kind, Kind::unavailable);
    EXPECT_TRUE(verdict.detail.starts_with(std::string(kCannotAsk) + "the system bus can’t be reached ("))
        << verdict.detail;
}

}  // namespace
}  // namespace ql
