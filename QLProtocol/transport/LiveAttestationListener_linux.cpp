#include "QLProtocol/transport/LiveAttestationListener.h"

#include "QLProtocol/transport/DaemonAttestation.h"
#include "QLProtocol/transport/FramedSocket.h"
#include "QLProtocol/transport/ListeningSocket.h"
#include "QLProtocol/transport/UDSServer.h"
#include "QLSupport/Log.h"

#include <asio/experimental/as_tuple.hpp>
#include <asio/experimental/awaitable_operators.hpp>
#include <fmt/format.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <mutex>
#include <sys/socket.h>
#include <unistd.h>

namespace ql {

namespace {

constexpr auto asTuple = asio::experimental::as_tuple(asio::use_awaitable);
constexpr std::string_view tag = "attest";

// The kernel's account of who is connected: credentials at connect time, and the executable
// the process runs now. (A process that exits and whose pid is reused in between would be
// judged by the new process; the window is the few microseconds of one request.)
std::optional<AttestationPeer> identifyPeer(int descriptor) {
    ucred credentials{};
    socklen_t length = sizeof(credentials);
    if (::getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) return std::nullopt;
    AttestationPeer peer;
    peer.pid = credentials.pid;
    peer.uid = credentials.uid;
    char target[PATH_MAX];
    const auto exe = fmt::format("/proc/{}/exe", credentials.pid);
    const auto n = ::readlink(exe.c_str(), target, sizeof(target) - 1);
    if (n > 0) peer.executable.assign(target, static_cast<std::size_t>(n));
    return peer;
}

}  // namespace

struct LiveAttestationListener::State {
    State(asio::strand<Executor> s, Options o, std::shared_ptr<AttestationSessions> sessions)
        : options(std::move(o)), sessions(std::move(sessions)), strand(std::move(s)), acceptor(strand) {}
    Options options;
    std::shared_ptr<AttestationSessions> sessions;
    asio::strand<Executor> strand;
    asio::local::stream_protocol::acceptor acceptor;
    LiveSleeper sleeper;
    std::mutex mutex;
    std::optional<ListeningSocket::FileIdentity> boundFile;
};

namespace {

asio::awaitable<void> answer(std::shared_ptr<LiveAttestationListener::State> state,
                             std::shared_ptr<FramedSocket> socket) {
    using namespace asio::experimental::awaitable_operators;
    auto request = co_await (socket->receive() || state->sleeper.sleep(state->options.requestTimeout));
    if (request.index() == 1 || !std::get<0>(request) || !*std::get<0>(request)) {
        socket->close();
        co_return;
    }
    if (**std::get<0>(request) != DaemonAttestation::requestKey) {
        Log::line(tag, "ignored a message that is not an attestation request");
        socket->close();
        co_return;
    }
    auto peer = identifyPeer(socket->socket().native_handle());
    if (!peer) {
        Log::f(tag, "refused a token: the caller could not be identified ({})", std::strerror(errno));
        socket->close();
        co_return;
    }
    auto verdict = state->options.policy.check(*peer);
    if (!verdict) {
        Log::f(tag, "refused a token to {}", verdict.error());
        socket->close();
        co_return;
    }
    std::string token;
    try {
        token = co_await state->sessions->issue(*verdict);
    } catch (const std::exception& e) {
        Log::f(tag, "could not issue a token: {}", e.what());
        socket->close();
        co_return;
    }
    co_await socket->send(std::move(token));
    co_await socket->awaitPeerClose(std::chrono::seconds{2}, state->sleeper);
    socket->close();
}

asio::awaitable<void> acceptLoop(std::shared_ptr<LiveAttestationListener::State> state) {
    for (;;) {
        auto connectionStrand = asio::make_strand(state->strand.get_inner_executor());
        FramedSocket::Socket socket(connectionStrand);
        auto [ec] = co_await state->acceptor.async_accept(socket, asTuple);
        if (ec) {
            if (ec == asio::error::operation_aborted || !state->acceptor.is_open()) break;
            Log::f(tag, "accept failed: {}", ec.message());
            asio::steady_timer pause(state->strand, std::chrono::milliseconds{50});
            co_await pause.async_wait(asTuple);
            continue;
        }
        auto framed = std::make_shared<FramedSocket>(std::move(socket));
        asio::co_spawn(connectionStrand, answer(state, framed), [framed](std::exception_ptr) { framed->close(); });
    }
}

}  // namespace

LiveAttestationListener::LiveAttestationListener(const Executor& executor, Options options,
                                                 std::shared_ptr<AttestationSessions> sessions)
    : Actor(executor), state_(std::make_shared<State>(strand(), std::move(options), std::move(sessions))) {}

LiveAttestationListener::~LiveAttestationListener() { stop(); }

tl::expected<void, std::string> LiveAttestationListener::start() {
    const auto& path = state_->options.socketPath;
    const unsigned mode = state_->options.socketMode.value_or(UDSServer::defaultSocketMode(::geteuid() == 0));
    auto bound = ListeningSocket::listen(state_->acceptor, path, mode);
    if (!bound) return tl::unexpected(bound.error());
    {
        std::lock_guard lock(state_->mutex);
        state_->boundFile = *bound;
    }
    Log::f(tag, "attestation service listening on {} ({} client executables{})", path,
           state_->options.policy.clientExecutables.size(),
           state_->options.policy.requiredUid ? fmt::format(", uid {} only", *state_->options.policy.requiredUid)
                                              : std::string(", any user"));
    spawnDetached(acceptLoop(state_), std::string(tag));
    return {};
}

void LiveAttestationListener::stop() {
    auto state = state_;
    std::optional<ListeningSocket::FileIdentity> bound;
    {
        std::lock_guard lock(state->mutex);
        bound = state->boundFile;
        state->boundFile.reset();
    }
    asio::post(state->strand, [state] {
        std::error_code ignored;
        state->acceptor.close(ignored);
    });
    if (bound) ListeningSocket::removeIfStill(state->options.socketPath, *bound);
}

}  // namespace ql
