#pragma once

#include "QLProtocol/runners/ShareConnectHandshake.h"

namespace ql {

// For a server without a user-session side: a share that is not mounted cannot be connected,
// and the run is refused with a sentence that says so and asks the user to connect it.
class NoOpShareConnectHandshake final : public ShareConnectHandshake {
public:
    asio::awaitable<tl::expected<void, std::string>> connect(Request request, Emit emit) override;
    asio::awaitable<void> disconnect(std::string shareURL) override;

    static std::string refusal(const std::string& displayName);
};

}  // namespace ql
