#pragma once

#include "QLProtocol/server/approval/AdministratorApproval.h"
#include "QLSupport/BlockingPool.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace ql {

// Asks polkit (org.freedesktop.PolicyKit1.Authority.CheckAuthorization on the system bus; the
// bus address comes from DBUS_SYSTEM_BUS_ADDRESS when set) whether the subject process may
// perform an action.
//
// Before asking, the subject is checked against /proc: the pid must still be the process that
// started at `processStartTime` and its real uid must be `uid`. polkit takes the uid a trusted
// caller hands it at its word, so a subject whose uid doesn't belong to its process is denied
// here rather than judged as someone else.
//
// Authorized → approved; not authorized (whether or not authentication could have helped) →
// denied; no bus, no polkit, an action polkit doesn't know or a timeout → unavailable. Each
// check opens its own bus connection and makes one blocking call on the blocking pool.
class LivePolkitApproval final : public AdministratorApproval {
public:
    struct Options {
        // How long to wait for polkit's answer, which includes the time a person takes to type
        // an administrator's password into an authentication agent.
        std::chrono::milliseconds timeout = std::chrono::seconds(120);
    };

    LivePolkitApproval(BlockingPool& pool, Options options) : pool_(pool), options_(options) {}
    explicit LivePolkitApproval(BlockingPool& pool) : LivePolkitApproval(pool, Options{}) {}

    asio::awaitable<ApprovalVerdict> check(ApprovalSubject subject, std::string actionID,
                                           bool allowUserInteraction) override;

private:
    BlockingPool& pool_;
    Options options_;
};

namespace procfs {
// Field 22 of the text of /proc/<pid>/stat: the start time in clock ticks since boot. The
// command name (field 2) is in parentheses and may itself hold spaces and parentheses, so the
// fields are counted from the last ')'.
std::optional<std::uint64_t> startTimeFromStat(std::string_view stat);
// The real uid (the first number of the "Uid:" line) in the text of /proc/<pid>/status.
std::optional<std::uint32_t> realUidFromStatus(std::string_view status);
}  // namespace procfs

}  // namespace ql
