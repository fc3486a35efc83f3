#include "QLProtocol/server/approval/AdministratorApproval.h"

#include "QLSupport/Log.h"

namespace ql {
namespace {

// On a Mac there is no polkit: an administrator approves copies through the copy lock's
// authorization right, so this check always sends the caller there.
class MacAdministratorApproval final : public AdministratorApproval {
public:
    asio::awaitable<ApprovalVerdict> check(ApprovalSubject subject, std::string actionID, bool) override {
        Log::f("approval", "uid {} (pid {}) asked for {}: unavailable, approval on macOS goes through the copy lock",
               subject.uid, subject.pid, actionID);
        co_return ApprovalVerdict::unavailable(
            "On this Mac, an administrator approves copying as administrator by unlocking Quillo’s copy lock, "
            "not through this request.");
    }
};

}  // namespace

std::unique_ptr<AdministratorApproval> makeLiveAdministratorApproval(BlockingPool&) {
    return std::make_unique<MacAdministratorApproval>();
}

}  // namespace ql
