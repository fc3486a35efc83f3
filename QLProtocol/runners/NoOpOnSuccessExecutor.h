#pragma once

#include "QLProtocol/runners/OnSuccessExecutor.h"

namespace ql {

// For a server without a deferred-action coordinator: applies the gate (actions only after a
// completed run) and logs that the actions of a completed run were dropped; a notification is
// only logged ("[notification stub] copy …").
class NoOpOnSuccessExecutor final : public OnSuccessExecutor {
public:
    asio::awaitable<void> perform(std::vector<ql4::transport::v1::OnSuccessAction> actions, RunOutcome outcome,
                                  RunFacts facts) override;
};

}  // namespace ql
