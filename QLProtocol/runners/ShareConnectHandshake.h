#pragma once

#include "QLProtocol/proto/runs.pb.h"

#include <asio.hpp>
#include <tl/expected.hpp>

#include <functional>
#include <string>

namespace ql {

// Connects a network share that a run needs through the logged-in user's session (which holds
// the saved credentials), and disconnects the shares a run connected once it is over.
class ShareConnectHandshake {
public:
    struct Request {
        std::string runID;  // 16 raw bytes
        std::string shareURL;
        std::string displayName;
        bool isSource = false;
    };
    // Sends an event (the `awaitingConnect` prompt) to the run's stream.
    using Emit = std::function<void(ql4::transport::v1::ClonerEvent)>;

    virtual ~ShareConnectHandshake() = default;

    // Waits until the share is mounted; the error is the sentence the run fails with.
    virtual asio::awaitable<tl::expected<void, std::string>> connect(Request request, Emit emit) = 0;
    virtual asio::awaitable<void> disconnect(std::string shareURL) = 0;
};

}  // namespace ql
