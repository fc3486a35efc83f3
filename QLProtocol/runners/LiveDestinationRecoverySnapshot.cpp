#include "QLProtocol/runners/LiveDestinationRecoverySnapshot.h"

#include <chrono>

namespace ql {

asio::awaitable<DestinationRecoverySnapshot::Outcome> LiveDestinationRecoverySnapshot::take(
    std::string mountPath, std::shared_ptr<CommandControl> control) {
    ShellCommand command{kTool, {"localsnapshot", mountPath}, std::nullopt, std::chrono::milliseconds(60'000),
                         std::move(control)};
    auto outcome = co_await shell_.run(std::move(command));
    if (!outcome) co_return Outcome{Outcome::Kind::unavailable, outcome.error().message()};
    if (outcome->exitCode != 0) co_return Outcome{Outcome::Kind::declined, outcome->stderr};
    co_return Outcome{Outcome::Kind::taken, {}};
}

}  // namespace ql
