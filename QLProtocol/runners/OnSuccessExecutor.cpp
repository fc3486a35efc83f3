#include "QLProtocol/runners/OnSuccessExecutor.h"

#include <fmt/format.h>

namespace ql {

std::string_view OnSuccessExecutor::caseName(RunOutcome outcome) {
    switch (outcome) {
        case RunOutcome::completed: return "completed";
        case RunOutcome::failed: return "failed";
        case RunOutcome::cancelled: return "cancelled";
    }
    return "failed";
}

std::string OnSuccessExecutor::actionName(ql4::transport::v1::OnSuccessAction action) {
    namespace wire = ql4::transport::v1;
    switch (action) {
        case wire::OSA_EJECT_DESTINATION: return "eject-destination";
        case wire::OSA_EJECT_SOURCE: return "eject-source";
        case wire::OSA_SEND_NOTIFICATION: return "notification";
        case wire::OSA_SLEEP: return "sleep";
        case wire::OSA_RESTART: return "restart";
        case wire::OSA_SHUT_DOWN: return "shutDown";
        default: return fmt::format("action({})", static_cast<int>(action));
    }
}

std::string OnSuccessExecutor::actionNames(const std::vector<ql4::transport::v1::OnSuccessAction>& actions) {
    std::string out;
    for (auto action : actions) {
        if (!out.empty()) out += ", ";
        out += actionName(action);
    }
    return out;
}

}  // namespace ql
