// macOS route of the attestation service: an XPC Mach service that only peers satisfying the
// vendor's code-signing requirement can talk to.
#include "QLProtocol/transport/LiveAttestationListener.h"

#include "QLProtocol/transport/DaemonAttestation.h"
#include "QLSupport/Log.h"

#include <dispatch/dispatch.h>
#include <xpc/xpc.h>

#include <mutex>

namespace ql {

namespace {
constexpr std::string_view tag = "attest";
}

struct LiveAttestationListener::State {
    State(Executor e, Options o, std::shared_ptr<AttestationSessions> s)
        : executor(std::move(e)), options(std::move(o)), sessions(std::move(s)) {}
    Executor executor;
    Options options;
    std::shared_ptr<AttestationSessions> sessions;
    std::mutex mutex;
    xpc_connection_t listener = nullptr;
};

namespace {

void answer(std::shared_ptr<LiveAttestationListener::State> state, xpc_connection_t peer, xpc_object_t message) {
    if (xpc_get_type(message) != XPC_TYPE_DICTIONARY) {
        if (message == XPC_ERROR_PEER_CODE_SIGNING_REQUIREMENT) {
            Log::line(tag, "refused a token: the caller does not satisfy the code-signing requirement");
        }
        return;
    }
    if (!xpc_dictionary_get_value(message, std::string(DaemonAttestation::requestKey).c_str())) return;
    const auto client = "pid " + std::to_string(xpc_connection_get_pid(peer));
    xpc_object_t reply = xpc_dictionary_create_reply(message);
    if (!reply) return;
    xpc_retain(peer);
    asio::co_spawn(state->executor, state->sessions->issue(client),
                   [peer, reply](std::exception_ptr error, std::string token) {
                       if (!error) {
                           xpc_dictionary_set_data(reply, std::string(DaemonAttestation::replyKey).c_str(),
                                                   token.data(), token.size());
                           xpc_connection_send_message(peer, reply);
                       }
                       xpc_release(reply);
                       xpc_release(peer);
                   });
}

}  // namespace

LiveAttestationListener::LiveAttestationListener(const Executor& executor, Options options,
                                                 std::shared_ptr<AttestationSessions> sessions)
    : Actor(executor), state_(std::make_shared<State>(executor, std::move(options), std::move(sessions))) {}

LiveAttestationListener::~LiveAttestationListener() { stop(); }

tl::expected<void, std::string> LiveAttestationListener::start() {
    const auto requirement = DaemonAttestation::codeSigningRequirement();
    if (requirement.empty()) {
        return tl::unexpected(std::string("this build has no signing team configured, so the attestation service "
                                          "cannot verify clients and does not start"));
    }
    const auto name = DaemonAttestation::machServiceName();
    auto state = state_;
    xpc_connection_t listener =
        xpc_connection_create_mach_service(name.c_str(), nullptr, XPC_CONNECTION_MACH_SERVICE_LISTENER);
    xpc_connection_set_event_handler(listener, ^(xpc_object_t peer) {
      if (xpc_get_type(peer) != XPC_TYPE_CONNECTION) return;
      auto* connection = static_cast<xpc_connection_t>(peer);
      if (xpc_connection_set_peer_code_signing_requirement(connection, requirement.c_str()) != 0) {
          xpc_connection_cancel(connection);
          return;
      }
      xpc_connection_set_event_handler(connection, ^(xpc_object_t message) {
        answer(state, connection, message);
      });
      xpc_connection_resume(connection);
    });
    xpc_connection_resume(listener);
    {
        std::lock_guard lock(state_->mutex);
        state_->listener = listener;
    }
    Log::f(tag, "attestation service {} listening", name);
    return {};
}

void LiveAttestationListener::stop() {
    xpc_connection_t listener = nullptr;
    {
        std::lock_guard lock(state_->mutex);
        std::swap(listener, state_->listener);
    }
    if (listener) {
        xpc_connection_cancel(listener);
        xpc_release(listener);
    }
}

}  // namespace ql
