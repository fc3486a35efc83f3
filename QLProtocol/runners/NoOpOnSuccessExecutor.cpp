#include "QLProtocol/runners/NoOpOnSuccessExecutor.h"

#include "QLSupport/Log.h"

#include <algorithm>

namespace ql {

asio::awaitable<void> NoOpOnSuccessExecutor::perform(std::vector<ql4::transport::v1::OnSuccessAction> actions,
                                                     RunOutcome outcome, RunFacts facts) {
    namespace wire = ql4::transport::v1;
    if (actions.empty()) co_return;
    if (outcome != RunOutcome::completed) {
        Log::f("on-success", "REFUSED — the run ended {}; {}", caseName(outcome), actionNames(actions));
        co_return;
    }
    std::vector<wire::OnSuccessAction> others;
    for (auto action : actions) {
        if (action == wire::OSA_SEND_NOTIFICATION) {
            Log::f("notification stub", "copy {} completed", facts.tileName.empty() ? facts.tileID : facts.tileName);
        } else {
            others.push_back(action);
        }
    }
    if (!others.empty()) Log::f("on-success", "coordinator not wired; dropped {}", actionNames(others));
    co_return;
}

}  // namespace ql
