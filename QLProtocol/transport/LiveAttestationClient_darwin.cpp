// macOS route of the attestation client: the privileged XPC service of the server.
#include "QLProtocol/transport/LiveAttestationClient.h"

#include "QLProtocol/transport/DaemonAttestation.h"
#include "QLSupport/Log.h"

#include <dispatch/dispatch.h>
#include <xpc/xpc.h>

#include <asio/experimental/awaitable_operators.hpp>

#include <atomic>
#include <mutex>

namespace ql {

namespace {

constexpr std::string_view tag = "attest";

// Sends {"attest": true} and completes with the reply's "token" data, or nullopt on any XPC
// error. Cancelling the awaiting coroutine (the watchdog in fetchToken) cancels the connection.
asio::awaitable<std::optional<std::string>> requestOverXPC() {
    return asio::async_initiate<const asio::use_awaitable_t<>&, void(std::optional<std::string>)>(
        [](auto handler) {
            using Handler = decltype(handler);
            struct Pending {
                std::mutex mutex;
                std::optional<Handler> handler;
                xpc_connection_t connection = nullptr;
            };
            auto pending = std::make_shared<Pending>();
            pending->handler.emplace(std::move(handler));
            auto complete = [pending](std::optional<std::string> token) {
                std::optional<Handler> h;
                {
                    std::lock_guard lock(pending->mutex);
                    h = std::move(pending->handler);
                    pending->handler.reset();
                }
                if (!h) return;
                auto executor = asio::get_associated_executor(*h);
                asio::post(executor, [h = std::move(*h), token = std::move(token)]() mutable { h(std::move(token)); });
            };

            const auto name = DaemonAttestation::machServiceName();
            xpc_connection_t connection = xpc_connection_create_mach_service(
                name.c_str(), nullptr, XPC_CONNECTION_MACH_SERVICE_PRIVILEGED);
            pending->connection = connection;
            xpc_connection_set_event_handler(connection, ^(xpc_object_t) {
            });
            xpc_connection_resume(connection);

            auto slot = asio::get_associated_cancellation_slot(*pending->handler);
            if (slot.is_connected()) {
                slot.assign([pending, complete](asio::cancellation_type) {
                    {
                        std::lock_guard lock(pending->mutex);
                        // The reply block still runs (with an error) and releases the connection.
                        if (pending->connection) xpc_connection_cancel(pending->connection);
                    }
                    complete(std::nullopt);
                });
            }

            xpc_object_t message = xpc_dictionary_create(nullptr, nullptr, 0);
            xpc_dictionary_set_bool(message, std::string(DaemonAttestation::requestKey).c_str(), true);
            xpc_connection_send_message_with_reply(
                connection, message, dispatch_get_global_queue(QOS_CLASS_UTILITY, 0), ^(xpc_object_t reply) {
                  std::optional<std::string> token;
                  if (xpc_get_type(reply) == XPC_TYPE_DICTIONARY) {
                      size_t length = 0;
                      const void* data =
                          xpc_dictionary_get_data(reply, std::string(DaemonAttestation::replyKey).c_str(), &length);
                      if (data && length > 0) token = std::string(static_cast<const char*>(data), length);
                  } else {
                      Log::line(tag, "the attestation service refused or could not be reached");
                  }
                  {
                      std::lock_guard lock(pending->mutex);
                      pending->connection = nullptr;
                  }
                  xpc_connection_cancel(connection);
                  xpc_release(connection);
                  complete(std::move(token));
                });
            xpc_release(message);
        },
        asio::use_awaitable);
}

// The watchdog: a service that does not answer within the timeout is abandoned.
asio::awaitable<std::optional<std::string>> fetchWithin(Duration timeout, std::shared_ptr<Sleeper> sleeper) {
    using namespace asio::experimental::awaitable_operators;
    auto outcome = co_await (requestOverXPC() || sleeper->sleep(timeout));
    if (outcome.index() == 1) {
        Log::line(tag, "the attestation service did not answer in time");
        co_return std::nullopt;
    }
    co_return std::get<0>(std::move(outcome));
}

}  // namespace

LiveAttestationClient::LiveAttestationClient(Options options) : options_(std::move(options)) {
    if (!options_.sleeper) options_.sleeper = std::make_shared<LiveSleeper>();
}

asio::awaitable<std::optional<std::string>> LiveAttestationClient::fetchToken(Duration timeout) {
    // The request and its watchdog race on a strand of their own.
    auto strand = asio::make_strand(co_await asio::this_coro::executor);
    co_return co_await asio::co_spawn(strand, fetchWithin(timeout, options_.sleeper), asio::use_awaitable);
}

}  // namespace ql
