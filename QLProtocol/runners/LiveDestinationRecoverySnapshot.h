#pragma once

#include "QLProtocol/runners/DestinationRecoverySnapshot.h"

namespace ql {

// Takes the snapshot with "/usr/bin/tmutil localsnapshot" on the destination volume (macOS). A
// non-zero exit is the tool declining (a volume excluded from local snapshots, for example).
class LiveDestinationRecoverySnapshot final : public DestinationRecoverySnapshot {
public:
    static constexpr const char* kTool = "/usr/bin/tmutil";

    explicit LiveDestinationRecoverySnapshot(ShellRunner& shell) : shell_(shell) {}
    asio::awaitable<Outcome> take(std::string mountPath, std::shared_ptr<CommandControl> control) override;

private:
    ShellRunner& shell_;
};

}  // namespace ql
