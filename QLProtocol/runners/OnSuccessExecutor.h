#pragma once

#include "QLProtocol/proto/runs.pb.h"

#include <asio.hpp>

#include <string>
#include <string_view>
#include <vector>

namespace ql {

// Performs (or hands on to be performed once the drives are free) what a job asks for after a
// successful run: ejecting the destination or the source, a notification, sleep, restart or
// shut-down. Actions only follow a completed run; a failed or cancelled run refuses them.
class OnSuccessExecutor {
public:
    enum class RunOutcome { completed, failed, cancelled };

    // What the actions need to know of the run.
    struct RunFacts {
        std::string tileID;
        std::string tileName;
        std::string runID;  // UUID text
        ql4::transport::v1::VolumeRef source;
        ql4::transport::v1::VolumeRef destination;
    };

    virtual ~OnSuccessExecutor() = default;

    virtual asio::awaitable<void> perform(std::vector<ql4::transport::v1::OnSuccessAction> actions, RunOutcome outcome,
                                          RunFacts facts) = 0;

    // "completed", "failed", "cancelled".
    static std::string_view caseName(RunOutcome outcome);
    // The action's name in log lines: "eject-destination", "eject-source", "notification",
    // "sleep", "restart", "shutDown" (an unknown number reads "action(N)").
    static std::string actionName(ql4::transport::v1::OnSuccessAction action);
    // The names joined by ", ".
    static std::string actionNames(const std::vector<ql4::transport::v1::OnSuccessAction>& actions);
};

}  // namespace ql
