#include "QLProtocol/transport/UDSServer.h"

#include "QLProtocol/proto/envelope.pb.h"
#include "QLProtocol/transport/FramedSocket.h"
#include "QLProtocol/transport/ListeningSocket.h"
#include "QLSupport/Log.h"

#include <asio/experimental/as_tuple.hpp>
#include <asio/experimental/awaitable_operators.hpp>
#include <fmt/format.h>

#include <atomic>
#include <map>
#include <mutex>
#include <unistd.h>

namespace ql {

namespace wire = ql4::transport::v1;

namespace {

constexpr auto asTuple = asio::experimental::as_tuple(asio::use_awaitable);
constexpr std::string_view tag = "UDSServer";

struct Connection {
    Connection(asio::strand<Executor> s, FramedSocket::Socket socket) : strand(std::move(s)), framed(std::move(socket)) {}
    asio::strand<Executor> strand;
    FramedSocket framed;
};

std::string describeException(std::exception_ptr error) {
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& e) {
        return e.what();
    } catch (...) {
        return "unknown exception";
    }
}

}  // namespace

struct UDSServer::State {
    State(asio::strand<Executor> s, Options o, std::shared_ptr<const MultiplexHandler> h)
        : options(std::move(o)), handler(std::move(h)), strand(std::move(s)), acceptor(strand) {}

    Options options;
    std::shared_ptr<const MultiplexHandler> handler;
    asio::strand<Executor> strand;
    asio::local::stream_protocol::acceptor acceptor;

    mutable std::mutex mutex;
    std::map<std::uint64_t, std::weak_ptr<Connection>> connections;
    std::uint64_t nextConnection = 0;
    bool stopped = false;
    std::optional<ListeningSocket::FileIdentity> boundFile;

    void remove(std::uint64_t id) {
        std::lock_guard lock(mutex);
        connections.erase(id);
    }
};

namespace {

asio::awaitable<bool> sendFrame(Connection& connection, std::string bytes, std::string_view what) {
    auto sent = co_await connection.framed.send(std::move(bytes));
    if (!sent) {
        Log::f(tag, "could not send the {}: {}", what, sent.error().detail);
        co_return false;
    }
    co_return true;
}

asio::awaitable<void> sendUnaryAnswer(std::shared_ptr<Connection> connection, wire::WireResponse response) {
    auto sent = co_await connection->framed.send(response.SerializeAsString());
    if (!sent && sent.error().code == std::errc::message_size) {
        // The response itself is over the frame limit: the call fails, visibly.
        wire::WireResponse tooLarge;
        tooLarge.set_status(wire::WireResponse::INTERNAL_ERROR);
        tooLarge.set_error_message("the response is too large to send: " + sent.error().detail);
        co_await sendFrame(*connection, tooLarge.SerializeAsString(), "refusal");
    } else if (!sent) {
        Log::f(tag, "could not send the response: {}", sent.error().detail);
    }
}

asio::awaitable<void> sendStreamEnd(std::shared_ptr<Connection> connection, std::optional<std::string> failure) {
    wire::WireStreamResponse end;
    if (failure) {
        end.set_kind(wire::WireStreamResponse::END_ERROR);
        end.set_error_message(std::move(*failure));
    } else {
        end.set_kind(wire::WireStreamResponse::END_OK);
    }
    co_await sendFrame(*connection, end.SerializeAsString(), "end of the stream");
}

// Writes the stream's items until it ends, then the final element. Never throws except when
// cancelled (the client went away).
asio::awaitable<void> pumpItems(std::shared_ptr<Connection> connection, std::shared_ptr<ServerItemStream> items) {
    std::optional<std::string> internalFailure;
    try {
        for (;;) {
            auto item = co_await items->next();
            if (!item) break;
            wire::WireStreamResponse data;
            data.set_kind(wire::WireStreamResponse::DATA);
            data.set_body(std::move(*item));
            auto sent = co_await connection->framed.send(data.SerializeAsString());
            if (!sent) {
                if (sent.error().code == std::errc::message_size) {
                    items->cancel();
                    co_await sendStreamEnd(connection, "a stream item is too large to send: " + sent.error().detail);
                } else {
                    Log::f(tag, "could not send a stream item: {}", sent.error().detail);
                    items->cancel();
                    connection->framed.close();
                }
                co_return;
            }
        }
    } catch (const std::system_error& e) {
        if (e.code() == asio::error::operation_aborted) throw;
        internalFailure = std::string("internal error: ") + e.what();
    } catch (const std::exception& e) {
        internalFailure = std::string("internal error: ") + e.what();
    }
    if (internalFailure) {
        items->cancel();
        co_await sendStreamEnd(connection, std::move(internalFailure));
        co_return;
    }
    co_await sendStreamEnd(connection, items->failure());
}

asio::awaitable<void> serveStream(std::shared_ptr<Connection> connection, std::shared_ptr<ServerItemStream> items,
                                  std::string method) {
    using namespace asio::experimental::awaitable_operators;
    auto outcome = co_await (pumpItems(connection, items) || connection->framed.awaitPeerGone());
    if (outcome.index() == 1) {
        items->cancel();
        Log::f(tag, "the client closed its stream of {}; its producer is stopped", method);
    }
}

}  // namespace

namespace {

asio::awaitable<void> serveConnection(std::shared_ptr<UDSServer::State> state, std::shared_ptr<Connection> connection) {
    using namespace asio::experimental::awaitable_operators;
    auto& options = state->options;
    auto& sleeper = *options.sleeper;

    auto received = co_await (connection->framed.receive() || sleeper.sleep(options.requestTimeout));
    if (received.index() == 1) {
        Log::f(tag, "no request within {} ms; closing the connection",
               std::chrono::duration_cast<std::chrono::milliseconds>(options.requestTimeout).count());
        connection->framed.close();
        co_return;
    }
    auto& frame = std::get<0>(received);
    if (!frame) {
        Log::f(tag, "dropped a connection before its request: {}", frame.error().detail);
        connection->framed.close();
        co_return;
    }
    if (!*frame) {
        connection->framed.close();
        co_return;
    }
    wire::WireRequest request;
    if (!request.ParseFromString(**frame)) {
        Log::line(tag, "a request frame does not decode as a WireRequest; closing the connection");
        connection->framed.close();
        co_return;
    }

    // Who is calling, as the kernel saw the connection; every provider decides with it. A caller
    // that can't be identified is refused: nothing may be done on an unknown person's behalf.
    CallContext caller;
    std::optional<CallRefusal> refusal;
    if (auto identified = CallContext::ofSocketPeer(connection->framed.socket().native_handle())) {
        caller = *identified;
    } else {
        Log::f(tag, "refused {}: the caller's credentials could not be read (errno={})", request.method(),
               identified.error());
        refusal = CallRefusal::internalError("the server could not identify the caller of this connection");
    }
    if (!refusal && options.sessions) {
        const bool valid = co_await options.sessions->validate(request.session_token());
        if (!valid) {
            const auto* missing = request.session_token().empty() ? "without a session token"
                                                                  : "with an unknown or expired session token";
            if (options.sessions->mode() == AttestationSessions::Mode::enforce) {
                Log::f(tag, "refused {} {} (enforce)", request.method(), missing);
                refusal = CallRefusal::unauthenticated();
            } else {
                Log::f(tag, "call to {} {} (logOnly: proceeding)", request.method(), missing);
            }
        }
    }

    if (!request.is_server_stream()) {
        wire::WireResponse response;
        if (refusal) {
            response = refusal->asResponse();
        } else {
            tl::expected<std::string, CallRefusal> result;
            try {
                result = co_await state->handler->unary(caller, request.method(), std::move(*request.mutable_body()));
            } catch (...) {
                result = tl::unexpected(CallRefusal::internalError(describeException(std::current_exception())));
            }
            if (result) {
                response.set_status(wire::WireResponse::OK);
                response.set_body(std::move(*result));
            } else {
                if (result.error().status != wire::WireResponse::HANDLER_ERROR) {
                    Log::f(tag, "refused {}: {}", request.method(), result.error().message);
                }
                response = result.error().asResponse();
            }
        }
        co_await sendUnaryAnswer(connection, std::move(response));
    } else {
        std::shared_ptr<ServerItemStream> items;
        if (!refusal) {
            tl::expected<std::unique_ptr<ServerItemStream>, CallRefusal> result;
            try {
                result = co_await state->handler->stream(caller, request.method(), std::move(*request.mutable_body()));
            } catch (...) {
                result = tl::unexpected(CallRefusal::internalError(describeException(std::current_exception())));
            }
            if (result) {
                items = std::move(*result);
            } else {
                refusal = result.error();
                if (refusal->status != wire::WireResponse::HANDLER_ERROR) {
                    Log::f(tag, "refused the stream {}: {}", request.method(), refusal->message);
                }
            }
        }
        if (refusal) {
            co_await sendStreamEnd(connection, refusal->streamEndMessage());
        } else {
            co_await serveStream(connection, items, request.method());
        }
    }

    if (connection->framed.isOpen()) {
        const bool closed = co_await connection->framed.awaitPeerClose(options.peerCloseTimeout, sleeper);
        if (!closed) Log::f(tag, "the client of {} did not close its connection in time", request.method());
    }
    connection->framed.close();
}

asio::awaitable<void> acceptLoop(std::shared_ptr<UDSServer::State> state) {
    for (;;) {
        auto connectionStrand = asio::make_strand(state->strand.get_inner_executor());
        FramedSocket::Socket socket(connectionStrand);
        auto [ec] = co_await state->acceptor.async_accept(socket, asTuple);
        if (ec) {
            if (ec == asio::error::operation_aborted || !state->acceptor.is_open()) break;
            Log::f(tag, "accept failed: {}", ec.message());
            // A persistent failure (out of descriptors) must not spin the loop.
            asio::steady_timer pause(state->strand, std::chrono::milliseconds{50});
            co_await pause.async_wait(asTuple);
            continue;
        }
        auto connection = std::make_shared<Connection>(connectionStrand, std::move(socket));
        std::uint64_t id = 0;
        {
            std::lock_guard lock(state->mutex);
            if (state->stopped) break;
            id = state->nextConnection++;
            state->connections[id] = connection;
        }
        asio::co_spawn(connectionStrand, serveConnection(state, connection),
                       [state, id, connection](std::exception_ptr error) {
                           if (error) {
                               Log::f(tag, "a connection task ended with an exception: {}", describeException(error));
                           }
                           connection->framed.close();
                           state->remove(id);
                       });
    }
}

}  // namespace

UDSServer::UDSServer(const Executor& executor, Options options, std::shared_ptr<const MultiplexHandler> handler)
    : Actor(executor) {
    if (!options.sleeper) options.sleeper = std::make_shared<LiveSleeper>();
    state_ = std::make_shared<State>(strand(), std::move(options), std::move(handler));
}

UDSServer::~UDSServer() { stop(); }

const std::string& UDSServer::socketPath() const { return state_->options.socketPath; }

std::size_t UDSServer::connectionCount() const {
    std::lock_guard lock(state_->mutex);
    return state_->connections.size();
}

tl::expected<void, std::string> UDSServer::start() {
    auto& options = state_->options;
    const auto& path = options.socketPath;
    const unsigned mode = options.socketMode.value_or(defaultSocketMode(::geteuid() == 0));
    auto bound = ListeningSocket::listen(state_->acceptor, path, mode);
    if (!bound) return tl::unexpected(bound.error());
    {
        std::lock_guard lock(state_->mutex);
        state_->boundFile = *bound;
        state_->stopped = false;
    }
    Log::f(tag, "listening on {} (mode {:04o}{})", path, mode,
           options.sessions ? fmt::format(", attestation {}", AttestationSessions::modeName(options.sessions->mode()))
                            : std::string(", no attestation"));
    spawnDetached(acceptLoop(state_), std::string(tag));
    return {};
}

void UDSServer::stop() {
    auto state = state_;
    std::vector<std::shared_ptr<Connection>> open;
    std::optional<ListeningSocket::FileIdentity> bound;
    {
        std::lock_guard lock(state->mutex);
        if (state->stopped) return;
        state->stopped = true;
        for (auto& [id, weak] : state->connections) {
            if (auto connection = weak.lock()) open.push_back(std::move(connection));
        }
        bound = state->boundFile;
        state->boundFile.reset();
    }
    asio::post(state->strand, [state] {
        std::error_code ignored;
        state->acceptor.close(ignored);
    });
    for (auto& connection : open) {
        asio::post(connection->strand, [connection] { connection->framed.close(); });
    }
    if (bound) {
        ListeningSocket::removeIfStill(state->options.socketPath, *bound);
        Log::f(tag, "stopped listening on {}", state->options.socketPath);
    }
}

}  // namespace ql
