#pragma once

#include <asio.hpp>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace ql {

class BlockingPool;

// The process asking for approval, as the kernel reported it for the connection the request
// came on. The pid and start time together name one process even after the pid is reused.
struct ApprovalSubject {
    std::uint32_t uid = 0;
    std::int32_t pid = 0;
    // Clock ticks since boot (Linux: field 22 of /proc/<pid>/stat). 0 when unknown, which is
    // never approved: without it a reused pid could borrow someone else's approval.
    std::uint64_t processStartTime = 0;

    friend bool operator==(const ApprovalSubject&, const ApprovalSubject&) = default;
};

struct ApprovalVerdict {
    enum class Kind { approved, denied, unavailable };
    Kind kind = Kind::unavailable;
    // A sentence for the person asking when denied or unavailable; empty when approved.
    std::string detail;

    static ApprovalVerdict approved() { return {Kind::approved, {}}; }
    static ApprovalVerdict denied(std::string detail) { return {Kind::denied, std::move(detail)}; }
    static ApprovalVerdict unavailable(std::string detail) { return {Kind::unavailable, std::move(detail)}; }

    bool isApproved() const { return kind == Kind::approved; }

    friend bool operator==(const ApprovalVerdict&, const ApprovalVerdict&) = default;
};

// "approved", "denied", "unavailable": for log lines and test names.
std::string_view describe(ApprovalVerdict::Kind kind);

// Asks the system whether an administrator approves an action for a process: on Linux, polkit.
// A non-root user may make a copy "as administrator" only when this approves. Asking may wait
// for a person to authenticate, so a check can take as long as typing a password does.
class AdministratorApproval {
public:
    virtual ~AdministratorApproval() = default;
    // `allowUserInteraction`: the system may ask someone (through an authentication agent) to
    // prove they are an administrator; without it only a standing approval counts.
    virtual asio::awaitable<ApprovalVerdict> check(ApprovalSubject subject, std::string actionID,
                                                   bool allowUserInteraction) = 0;
};

// The action a copy as administrator needs: the application identifier followed by
// ".copy-as-administrator". The action is defined by the polkit policy file Quillo installs.
std::string copyAsAdministratorAction();

// This platform's approval: polkit on Linux; on macOS a refusal that points at the copy lock,
// which is where approval is given there.
std::unique_ptr<AdministratorApproval> makeLiveAdministratorApproval(BlockingPool& pool);

// For other modules' tests: answers from a table of users, else a fixed verdict, and records
// every call.
class FakeAdministratorApproval final : public AdministratorApproval {
public:
    struct Call {
        ApprovalSubject subject;
        std::string actionID;
        bool allowUserInteraction = false;
        friend bool operator==(const Call&, const Call&) = default;
    };

    FakeAdministratorApproval()
        : fallback_(ApprovalVerdict::denied("No administrator approved copying as administrator.")) {}
    explicit FakeAdministratorApproval(ApprovalVerdict fallback) : fallback_(std::move(fallback)) {}

    // The verdict for every user not in the table.
    void setFallback(ApprovalVerdict verdict) {
        std::lock_guard lock(mutex_);
        fallback_ = std::move(verdict);
    }
    void setVerdict(std::uint32_t uid, ApprovalVerdict verdict) {
        std::lock_guard lock(mutex_);
        byUser_[uid] = std::move(verdict);
    }

    asio::awaitable<ApprovalVerdict> check(ApprovalSubject subject, std::string actionID,
                                           bool allowUserInteraction) override {
        std::lock_guard lock(mutex_);
        calls_.push_back({subject, std::move(actionID), allowUserInteraction});
        auto found = byUser_.find(subject.uid);
        co_return found != byUser_.end() ? found->second : fallback_;
    }

    std::vector<Call> calls() const {
        std::lock_guard lock(mutex_);
        return calls_;
    }

private:
    mutable std::mutex mutex_;
    ApprovalVerdict fallback_;
    std::map<std::uint32_t, ApprovalVerdict> byUser_;
    std::vector<Call> calls_;
};

}  // namespace ql
