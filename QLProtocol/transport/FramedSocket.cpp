#include "QLProtocol/transport/FramedSocket.h"

#include <asio/experimental/as_tuple.hpp>
#include <asio/experimental/awaitable_operators.hpp>
#include <fmt/format.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>

namespace ql {

namespace {
constexpr std::size_t readChunk = 64 * 1024;
// How often a connect is retried while the server's listen queue is full.
constexpr auto connectRetryPause = std::chrono::milliseconds{10};
constexpr auto asTuple = asio::experimental::as_tuple(asio::use_awaitable);

// Clears the monitor's waiter however the receive ends (including by cancellation).
struct WaitScope {
    ConnectionMonitor& monitor;
    ~WaitScope() { monitor.endWait(); }
};
}  // namespace

FramedSocket::FramedSocket(Socket socket)
    : socket_(std::move(socket)), buffer_(std::make_unique<char[]>(readChunk)) {}

asio::awaitable<std::error_code> FramedSocket::connect(std::string path, std::shared_ptr<Sleeper> sleeper) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) co_return std::make_error_code(std::errc::filename_too_long);
    std::memcpy(address.sun_path, path.data(), path.size());
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size() + 1);

    std::error_code ec;
    socket_.open(asio::local::stream_protocol(), ec);
    if (ec) co_return ec;
    socket_.non_blocking(true, ec);
    if (ec) co_return ec;
    for (;;) {
        if (!socket_.is_open()) co_return asio::error::operation_aborted;
        // The socket is non-blocking, so this never waits; a full queue answers EAGAIN.
        if (::connect(socket_.native_handle(), reinterpret_cast<const sockaddr*>(&address), length) == 0) co_return std::error_code{};
        const int error = errno;
        if (error == EINTR) continue;
        if (error == EISCONN) co_return std::error_code{};
        if (error != EAGAIN && error != EWOULDBLOCK) co_return std::error_code(error, std::system_category());
        try {
            co_await sleeper->sleep(connectRetryPause);
        } catch (const std::system_error&) {
            co_return asio::error::operation_aborted;
        }
    }
}

asio::awaitable<tl::expected<std::optional<std::string>, FramedSocket::Failure>> FramedSocket::receive() {
    using Result = tl::expected<std::optional<std::string>, Failure>;
    if (!ready_.empty()) {
        auto body = std::move(ready_.front());
        ready_.pop_front();
        co_return Result{std::move(body)};
    }
    if (auto failure = monitor_.terminalError()) co_return tl::unexpected(*failure);
    if (!monitor_.beginWait(ConnectionMonitor::Waiter::frame)) {
        co_return tl::unexpected(
            Failure{std::make_error_code(std::errc::device_or_resource_busy), "concurrent receive on a serial connection"});
    }
    WaitScope scope{monitor_};
    while (ready_.empty()) {
        auto [ec, n] = co_await socket_.async_read_some(asio::buffer(buffer_.get(), readChunk), asTuple);
        if (n > 0) {
            auto framing = framer_.feed(std::string_view(buffer_.get(), n),
                                        [this](std::string body) { ready_.push_back(std::move(body)); });
            if (framing) {
                Failure failure{framing, fmt::format("a frame header announced {} bytes, more than the {}-byte limit ({})",
                                                     framer_.rejectedLength(), GRPCFramer::maxBodyLength,
                                                     framing.message())};
                monitor_.fail(failure);
                close();
                // Frames completed before the bad header are still handed out first.
                if (ready_.empty()) co_return tl::unexpected(failure);
                break;
            }
            continue;
        }
        if (ec == asio::error::eof) {
            if (framer_.atFrameBoundary()) co_return Result{std::nullopt};
            Failure failure{ec, "the peer closed the connection in the middle of a frame"};
            monitor_.fail(failure);
            co_return tl::unexpected(failure);
        }
        if (ec) {
            Failure failure{ec, ec.message()};
            if (ec != asio::error::operation_aborted) monitor_.fail(failure);
            co_return tl::unexpected(failure);
        }
    }
    auto body = std::move(ready_.front());
    ready_.pop_front();
    co_return Result{std::move(body)};
}

asio::awaitable<tl::expected<void, FramedSocket::Failure>> FramedSocket::send(std::string body) {
    if (body.size() > GRPCFramer::maxBodyLength) {
        co_return tl::unexpected(Failure{std::make_error_code(std::errc::message_size),
                                         fmt::format("a message of {} bytes exceeds the {}-byte frame limit",
                                                     body.size(), GRPCFramer::maxBodyLength)});
    }
    const auto header = GRPCFramer::header(static_cast<std::uint32_t>(body.size()));
    const std::array<asio::const_buffer, 2> buffers{asio::buffer(header), asio::buffer(body)};
    auto [ec, n] = co_await asio::async_write(socket_, buffers, asTuple);
    (void)n;
    if (ec) co_return tl::unexpected(Failure{ec, ec.message()});
    co_return tl::expected<void, Failure>{};
}

asio::awaitable<void> FramedSocket::awaitPeerGone() {
    std::array<char, 512> scratch{};
    for (;;) {
        auto [ec, n] = co_await socket_.async_read_some(asio::buffer(scratch), asTuple);
        (void)n;
        if (ec) co_return;
    }
}

asio::awaitable<bool> FramedSocket::awaitPeerClose(Duration limit, Sleeper& sleeper) {
    using namespace asio::experimental::awaitable_operators;
    if (!socket_.is_open()) co_return true;
    std::error_code ignored;
    socket_.shutdown(Socket::shutdown_send, ignored);
    auto outcome = co_await (awaitPeerGone() || sleeper.sleep(limit));
    co_return outcome.index() == 0;
}

void FramedSocket::close() {
    std::error_code ignored;
    socket_.close(ignored);
}

}  // namespace ql
