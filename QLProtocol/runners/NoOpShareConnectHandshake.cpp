#include "QLProtocol/runners/NoOpShareConnectHandshake.h"

#include <fmt/format.h>

namespace ql {

std::string NoOpShareConnectHandshake::refusal(const std::string& displayName) {
    return fmt::format("The network share “{}” isn't connected, and this version of Quillo can't connect to it by "
                       "itself. Connect to it, then run the copy again.",
                       displayName);
}

asio::awaitable<tl::expected<void, std::string>> NoOpShareConnectHandshake::connect(Request request, Emit) {
    co_return tl::unexpected(refusal(request.displayName.empty() ? request.shareURL : request.displayName));
}

asio::awaitable<void> NoOpShareConnectHandshake::disconnect(std::string) { co_return; }

}  // namespace ql
