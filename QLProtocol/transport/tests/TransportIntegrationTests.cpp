// The transport over real Unix sockets: framing at the byte level, concurrency, stream
// cancellation, every refusal on both call kinds, attestation modes, socket files and the
// client's handling of misbehaving servers.
#include "TransportTestSupport.h"

#include "QLProtocol/transport/AttestationTokenCache.h"
#include "QLProtocol/transport/FakeAttestationClient.h"
#include "QLProtocol/transport/GRPCFramer.h"
#include "QLProtocol/transport/SocketPath.h"
#include "QLProtocol/transport/UDSChannel.h"
#include "QLProtocol/transport/UDSServer.h"
#include "QLSupport/Log.h"

#include <asio/experimental/awaitable_operators.hpp>

#include <fcntl.h>
#include <poll.h>
#include <fstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using namespace ql;
using namespace ql::test;
using namespace std::chrono_literals;
using Status = wire::WireResponse;

constexpr auto pingPath = "/ql4.transport.v1.SystemService/Ping";
constexpr auto joinRunPath = "/ql4.transport.v1.CopyService/JoinRun";

// A blocking client socket for writing frames byte by byte; reads give up after two seconds.
class RawClient {
public:
    explicit RawClient(const std::string& path) {
        fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::snprintf(address.sun_path, sizeof(address.sun_path), "%s", path.c_str());
        if (::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
            throw std::runtime_error("raw connect failed");
        }
        timeval limit{2, 0};
        ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    }
    ~RawClient() { close(); }
    void close() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }
    void write(std::string_view bytes) {
        while (!bytes.empty()) {
            const auto n = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (n <= 0) throw std::runtime_error("raw write failed");
            bytes.remove_prefix(static_cast<std::size_t>(n));
        }
    }
    // The next frame's body; nullopt at end of stream (or timeout).
    std::optional<std::string> readFrame() {
        std::string header;
        if (!readExactly(header, 5)) return std::nullopt;
        std::string body;
        if (!readExactly(body, GRPCFramer::announcedLength(header))) return std::nullopt;
        return body;
    }
    // True when nothing arrives and the peer does not close within `wait`.
    bool stillOpenAfter(std::chrono::milliseconds wait) {
        pollfd p{fd_, POLLIN, 0};
        return ::poll(&p, 1, static_cast<int>(wait.count())) == 0;
    }
    // True when the peer has closed (a read returns end of stream).
    bool peerClosed() {
        char c;
        return ::recv(fd_, &c, 1, 0) == 0;
    }

private:
    bool readExactly(std::string& out, std::size_t n) {
        out.resize(n);
        std::size_t got = 0;
        while (got < n) {
            const auto r = ::recv(fd_, out.data() + got, n - got, 0);
            if (r <= 0) return false;
            got += static_cast<std::size_t>(r);
        }
        return true;
    }
    int fd_ = -1;
};

std::string requestFrame(const std::string& method, const std::string& body, bool stream, std::string token = {}) {
    wire::WireRequest request;
    request.set_method(method);
    request.set_body(body);
    request.set_is_server_stream(stream);
    request.set_session_token(std::move(token));
    return GRPCFramer::frame(request.SerializeAsString());
}

class TransportIntegrationTest : public ::testing::Test {
protected:
    TestLoop loop;
    TempFolder folder;
    std::string path = folder.file("s.sock");
    std::shared_ptr<EchoSystemProvider> system = std::make_shared<EchoSystemProvider>();
    std::shared_ptr<ScriptedCopyProvider> copy = std::make_shared<ScriptedCopyProvider>();
    std::shared_ptr<UDSServer> server;

    void startServer(std::shared_ptr<AttestationSessions> sessions = nullptr, std::shared_ptr<Sleeper> sleeper = nullptr) {
        ServiceCatalogue catalogue;
        catalogue.system = system;
        catalogue.copy = copy;
        UDSServer::Options options;
        options.socketPath = path;
        options.sessions = std::move(sessions);
        options.sleeper = std::move(sleeper);
        server = std::make_shared<UDSServer>(loop.executor(), options, catalogue.makeHandler());
        auto started = server->start();
        ASSERT_TRUE(started) << started.error();
    }

    std::shared_ptr<UDSChannel> channel(std::shared_ptr<AttestationTokenCache> cache = nullptr) {
        UDSChannel::Options options;
        options.socketPath = path;
        options.tokenCache = std::move(cache);
        return std::make_shared<UDSChannel>(options);
    }

    tl::expected<wire::PingResponse, TransportError> ping(const std::shared_ptr<UDSChannel>& ch, std::string nonce) {
        SystemServiceClient client(ch);
        return loop.run(client.call<&SystemServiceProvider::ping>(pingRequest(nonce)));
    }

    // The error a raw call ends with, unary or stream.
    TransportError unaryError(const std::string& method, const std::string& body) {
        auto result = loop.run(channel()->unary(method, body));
        EXPECT_FALSE(result) << method << " succeeded as unary";
        return result ? TransportError{} : result.error();
    }
    TransportError streamError(const std::string& method, const std::string& body) {
        auto ch = channel();
        auto items = loop.run([](std::shared_ptr<UDSChannel> c, std::string m, std::string b)
                                  -> asio::awaitable<tl::expected<int, TransportError>> {
            auto stream = co_await c->serverStream(std::move(m), std::move(b));
            int count = 0;
            for (;;) {
                auto item = co_await stream.next();
                if (!item) co_return tl::unexpected(item.error());
                if (!*item) co_return count;
                ++count;
            }
        }(ch, method, body));
        EXPECT_FALSE(items) << method << " read as a normal stream of " << (items ? *items : 0) << " items";
        return items ? TransportError{} : items.error();
    }
};

// ---------------------------------------------------------------------------------------------
// Framing at the byte level

TEST_F(TransportIntegrationTest, ARequestSplitAtEveryByteOffsetIsDecodedOnce) {
    startServer();
    wire::PingRequest ping = pingRequest("split");
    const auto frame = requestFrame(pingPath, ping.SerializeAsString(), false);
    for (std::size_t split = 1; split < frame.size(); ++split) {
        RawClient client(path);
        client.write(std::string_view(frame).substr(0, split));
        std::this_thread::sleep_for(1ms);  // lets the server read the first part on its own
        client.write(std::string_view(frame).substr(split));
        auto body = client.readFrame();
        ASSERT_TRUE(body) << "no answer for split at " << split;
        wire::WireResponse response;
        ASSERT_TRUE(response.ParseFromString(*body));
        ASSERT_EQ(response.status(), Status::OK) << response.error_message();
        wire::PingResponse pong;
        ASSERT_TRUE(pong.ParseFromString(response.body()));
        EXPECT_EQ(pong.nonce(), "split");
    }
    EXPECT_EQ(system->calls.load(), static_cast<int>(frame.size() - 1));
}

TEST_F(TransportIntegrationTest, AHeaderOverTheCapFailsTheConnection) {
    startServer();
    RawClient client(path);
    client.write(std::string("\x00\x04\x00\x00\x01", 5));  // 67,108,865 bytes announced
    EXPECT_FALSE(client.readFrame());
    EXPECT_TRUE(eventually([&] { return server->connectionCount() == 0; }));
    EXPECT_EQ(system->calls.load(), 0);
}

TEST_F(TransportIntegrationTest, AHeaderOfExactlyTheCapIsAccepted) {
    startServer();
    RawClient client(path);
    client.write(std::string("\x00\x04\x00\x00\x00" "first bytes", 16));  // 67,108,864 bytes announced
    // The server waits for the rest of the body instead of failing the connection.
    EXPECT_TRUE(client.stillOpenAfter(200ms));
    EXPECT_EQ(server->connectionCount(), 1u);
}

TEST_F(TransportIntegrationTest, ZeroLengthBodiesAreValid) {
    startServer();
    {
        // An empty frame is a default WireRequest: an empty, unknown method.
        RawClient client(path);
        client.write(std::string(5, '\0'));
        auto body = client.readFrame();
        ASSERT_TRUE(body);
        wire::WireResponse response;
        ASSERT_TRUE(response.ParseFromString(*body));
        EXPECT_EQ(response.status(), Status::UNKNOWN_METHOD);
        EXPECT_EQ(response.error_message(), "Unknown method: ");
    }
    // An empty request message and an empty response message.
    auto raw = loop.run(channel()->unary(pingPath, ""));
    ASSERT_TRUE(raw) << raw.error().message();
    EXPECT_TRUE(raw->empty());
}

// ---------------------------------------------------------------------------------------------
// Concurrency

TEST_F(TransportIntegrationTest, HundredConcurrentUnaryCallsGetTheirOwnAnswers) {
    startServer();
    auto ch = channel();
    SystemServiceClient client(ch);
    std::vector<std::future<tl::expected<wire::PingResponse, TransportError>>> calls;
    for (int i = 0; i < 100; ++i) {
        calls.push_back(asio::co_spawn(loop.executor(),
                                       client.call<&SystemServiceProvider::ping>(pingRequest("n" + std::to_string(i))),
                                       asio::use_future));
    }
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(calls[i].wait_for(10s), std::future_status::ready);
        auto pong = calls[i].get();
        ASSERT_TRUE(pong) << pong.error().message();
        EXPECT_EQ(pong->nonce(), "n" + std::to_string(i));
    }
}

TEST_F(TransportIntegrationTest, TwentyConcurrentStreamsDeliverTheirOwnEventsInOrder) {
    startServer();
    CopyServiceClient client(channel());
    std::vector<std::future<tl::expected<std::vector<wire::ClonerEvent>, TransportError>>> streams;
    for (int i = 0; i < 20; ++i) {
        streams.push_back(asio::co_spawn(
            loop.executor(),
            [](CopyServiceClient c, std::string id) -> asio::awaitable<tl::expected<std::vector<wire::ClonerEvent>, TransportError>> {
                auto stream = co_await c.call<&CopyServiceProvider::joinRun>(joinRequest(id));
                co_return co_await drain(std::move(stream));
            }(client, "run-" + std::to_string(i)),
            asio::use_future));
    }
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(streams[i].wait_for(10s), std::future_status::ready);
        auto events = streams[i].get();
        ASSERT_TRUE(events) << events.error().message();
        ASSERT_EQ(events->size(), static_cast<std::size_t>(ScriptedCopyProvider::eventsPerStream));
        for (int n = 0; n < ScriptedCopyProvider::eventsPerStream; ++n) {
            EXPECT_EQ((*events)[n].timestamp_unix_nanos(), n);
            EXPECT_EQ((*events)[n].run_id().value(), "run-" + std::to_string(i));
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Stream cancellation

TEST_F(TransportIntegrationTest, CancellingAStreamStopsTheServerSideProducer) {
    startServer();
    CopyServiceClient client(channel());
    auto first = loop.run([](CopyServiceClient c) -> asio::awaitable<tl::expected<std::optional<wire::ClonerEvent>, TransportError>> {
        auto stream = co_await c.call<&CopyServiceProvider::joinRun>(joinRequest("hold"));
        auto event = co_await stream.next();
        stream.cancel();
        co_return event;
    }(client));
    ASSERT_TRUE(first && *first) << (first ? "ended" : first.error().message());
    EXPECT_TRUE(eventually([&] { return copy->consumerGone.load(); }));
    EXPECT_TRUE(eventually([&] { return server->connectionCount() == 0; }));
    std::lock_guard lock(copy->mutex);
    ASSERT_EQ(copy->held.size(), 1u);
    EXPECT_TRUE(copy->held[0].consumerGone());
    EXPECT_FALSE(copy->held[0].push(wire::ClonerEvent{}));
}

TEST_F(TransportIntegrationTest, CancellingTheAwaitingCoroutineAlsoClosesTheStream) {
    startServer();
    CopyServiceClient client(channel());
    auto timedOut = loop.run([](CopyServiceClient c) -> asio::awaitable<bool> {
        using namespace asio::experimental::awaitable_operators;
        auto stream = co_await c.call<&CopyServiceProvider::joinRun>(joinRequest("hold"));
        co_await stream.next();  // the first event
        asio::steady_timer timer(co_await asio::this_coro::executor, 50ms);
        auto outcome = co_await (stream.next() || timer.async_wait(asio::use_awaitable));
        // The stream was cancelled by the timeout and now reports it.
        auto after = co_await stream.next();
        co_return outcome.index() == 1 && !after;
    }(client));
    EXPECT_TRUE(timedOut);
    EXPECT_TRUE(eventually([&] { return copy->consumerGone.load(); }));
}

TEST_F(TransportIntegrationTest, AStreamThatFailsEndsWithTheFailureAfterItsItems) {
    startServer();
    CopyServiceClient client(channel());
    auto result = loop.run([](CopyServiceClient c) -> asio::awaitable<std::pair<int, std::optional<TransportError>>> {
        auto stream = co_await c.call<&CopyServiceProvider::joinRun>(joinRequest("fail"));
        int items = 0;
        for (;;) {
            auto item = co_await stream.next();
            if (!item) co_return std::make_pair(items, std::optional<TransportError>(item.error()));
            if (!*item) co_return std::make_pair(items, std::optional<TransportError>());
            ++items;
        }
    }(client));
    EXPECT_EQ(result.first, 2);
    ASSERT_TRUE(result.second);
    EXPECT_EQ(*result.second, TransportError::serverFailed("the engine exited with status 3"));
    EXPECT_EQ(result.second->message(), "server failure: the engine exited with status 3");
}

// ---------------------------------------------------------------------------------------------
// Refusals read as the same error on both call kinds

TEST_F(TransportIntegrationTest, EveryRefusalReadsAsItsErrorOnBothCallKinds) {
    startServer();
    struct Case {
        std::string method;
        std::string body;
        Status::Status status;
        std::string message;
    };
    const std::vector<Case> cases = {
        {"/ql4.transport.v1.NoSuchService/Ping", "", Status::UNKNOWN_METHOD,
         "Unknown method: /ql4.transport.v1.NoSuchService/Ping"},
        {"/ql4.transport.v1.SystemService/Pong", "", Status::UNKNOWN_METHOD,
         "Unknown method: /ql4.transport.v1.SystemService/Pong"},
        {"ql4.transport.v1.SystemService/Ping", "", Status::UNKNOWN_METHOD,
         "Unknown method: ql4.transport.v1.SystemService/Ping"},
        {"/ql4.transport.v1.SystemService", "", Status::UNKNOWN_METHOD, "Unknown method: /ql4.transport.v1.SystemService"},
        {"", "", Status::UNKNOWN_METHOD, "Unknown method: "},
    };
    for (const auto& c : cases) {
        const auto expected = TransportError::statusError(c.status, c.message);
        EXPECT_EQ(unaryError(c.method, c.body), expected) << c.method;
        EXPECT_EQ(streamError(c.method, c.body), expected) << c.method;
        EXPECT_EQ(expected.message(), "server returned error: " + c.message);
    }

    // Refusals that belong to one call kind.
    const std::string garbage("\xff\xff\xff", 3);
    EXPECT_EQ(unaryError(pingPath, garbage),
              TransportError::statusError(Status::DECODE_ERROR, "the request body does not decode as ql4.transport.v1.PingRequest"));
    EXPECT_EQ(streamError(joinRunPath, garbage),
              TransportError::statusError(Status::DECODE_ERROR,
                                          "the request body does not decode as ql4.transport.v1.JoinRunRequest"));
    EXPECT_EQ(unaryError(joinRunPath, ""),
              TransportError::statusError(Status::UNKNOWN_METHOD,
                                          "Unknown method: /ql4.transport.v1.CopyService/JoinRun (expected server-stream)"));
    EXPECT_EQ(streamError(pingPath, ""),
              TransportError::statusError(Status::UNKNOWN_METHOD,
                                          "Unknown method: /ql4.transport.v1.SystemService/Ping (expected unary)"));
    EXPECT_EQ(unaryError("/ql4.transport.v1.CopyService/CancelRun", ""),
              TransportError::statusError(Status::HANDLER_ERROR, "no run with that id"));
    EXPECT_EQ(streamError(joinRunPath, joinRequest("refuse").SerializeAsString()),
              TransportError::statusError(Status::HANDLER_ERROR, "no such run"));
    EXPECT_EQ(streamError(joinRunPath, joinRequest("throw").SerializeAsString()),
              TransportError::statusError(Status::HANDLER_ERROR, "the provider broke"));
    EXPECT_EQ(unaryError("/ql4.transport.v1.SystemService/Shutdown", ""),
              TransportError::statusError(Status::HANDLER_ERROR,
                                          "/ql4.transport.v1.SystemService/Shutdown is not available on this server"));
    EXPECT_EQ(streamError("/ql4.transport.v1.TileService/WatchTiles", ""),
              TransportError::statusError(Status::HANDLER_ERROR,
                                          "/ql4.transport.v1.TileService/WatchTiles is not available on this server"));
}

// ---------------------------------------------------------------------------------------------
// Attestation

class AttestedTransportTest : public TransportIntegrationTest {
protected:
    std::shared_ptr<VirtualTime> time = std::make_shared<VirtualTime>();

    std::shared_ptr<AttestationSessions> sessions(AttestationSessions::Mode mode) {
        AttestationSessions::Options options;
        options.mode = mode;
        options.ttl = 1h;
        return std::make_shared<AttestationSessions>(loop.executor(), options, time);
    }
    std::shared_ptr<AttestationTokenCache> cache(std::shared_ptr<AttestationClient> client) {
        return std::make_shared<AttestationTokenCache>(loop.executor(), std::move(client), time);
    }
};

// Issues real tokens from the server's table, slowly enough that concurrent callers overlap.
class IssuingAttestationClient final : public AttestationClient {
public:
    explicit IssuingAttestationClient(std::shared_ptr<AttestationSessions> s) : sessions(std::move(s)) {}
    asio::awaitable<std::optional<std::string>> fetchToken(Duration) override {
        ++requests;
        asio::steady_timer pause(co_await asio::this_coro::executor, 50ms);
        co_await pause.async_wait(asio::use_awaitable);
        co_return co_await sessions->issue("test client");
    }
    std::shared_ptr<AttestationSessions> sessions;
    std::atomic<int> requests{0};
};

TEST_F(AttestedTransportTest, EnforceRefusesACallWithoutAToken) {
    startServer(sessions(AttestationSessions::Mode::enforce));
    const auto expected = TransportError::statusError(
        Status::PEER_UNAUTHENTICATED, "peer not attested — obtain a session token via the XPC attestation service");
    EXPECT_EQ(unaryError(pingPath, ""), expected);
    EXPECT_EQ(streamError(joinRunPath, joinRequest("x").SerializeAsString()), expected);
    EXPECT_EQ(system->calls.load(), 0);
}

TEST_F(AttestedTransportTest, EnforceRefusesAnExpiredTokenAndTheClientDropsIt) {
    auto table = sessions(AttestationSessions::Mode::enforce);
    startServer(table);
    const auto token = loop.run(table->issue("test"));
    auto fake = std::make_shared<FakeAttestationClient>(token);
    auto ch = channel(cache(fake));

    ASSERT_TRUE(ping(ch, "fresh"));
    time->advance(1h + 1s);
    auto refused = ping(ch, "expired");
    ASSERT_FALSE(refused);
    EXPECT_TRUE(refused.error().isUnauthenticated());
    EXPECT_EQ(fake->requests(), 1);
    // The refused token was dropped: the next call asks for a fresh one.
    fake->setToken(loop.run(table->issue("test")));
    ASSERT_TRUE(ping(ch, "renewed"));
    EXPECT_EQ(fake->requests(), 2);
}

TEST_F(AttestedTransportTest, LogOnlyLetsAMissThroughAndLogsIt) {
    LogCapture log;
    startServer(sessions(AttestationSessions::Mode::logOnly));
    auto pong = ping(channel(), "n");
    ASSERT_TRUE(pong) << pong.error().message();
    EXPECT_TRUE(log.contains("[UDSServer] call to /ql4.transport.v1.SystemService/Ping without a session token "
                             "(logOnly: proceeding)"));
}

TEST_F(AttestedTransportTest, TenSimultaneousCallsWithoutATokenMakeOneAttestationRequest) {
    auto table = sessions(AttestationSessions::Mode::enforce);
    startServer(table);
    auto attestation = std::make_shared<IssuingAttestationClient>(table);
    SystemServiceClient client(channel(cache(attestation)));
    std::vector<std::future<tl::expected<wire::PingResponse, TransportError>>> calls;
    for (int i = 0; i < 10; ++i) {
        calls.push_back(asio::co_spawn(loop.executor(), client.call<&SystemServiceProvider::ping>(pingRequest("n")),
                                       asio::use_future));
    }
    for (auto& call : calls) {
        ASSERT_EQ(call.wait_for(10s), std::future_status::ready);
        auto pong = call.get();
        EXPECT_TRUE(pong) << pong.error().message();
    }
    EXPECT_EQ(attestation->requests.load(), 1);
    EXPECT_EQ(loop.run(table->count()), 1u);
}

TEST_F(AttestedTransportTest, ARespawnedServerRefusesTheOldTokenOnceThenTheClientRecovers) {
    auto first = sessions(AttestationSessions::Mode::enforce);
    startServer(first);
    auto attestation = std::make_shared<IssuingAttestationClient>(first);
    auto ch = channel(cache(attestation));
    ASSERT_TRUE(ping(ch, "a"));

    server->stop();
    server.reset();
    auto second = sessions(AttestationSessions::Mode::enforce);
    attestation->sessions = second;
    startServer(second);
    EXPECT_FALSE(ping(ch, "b"));
    EXPECT_TRUE(ping(ch, "c"));
    EXPECT_EQ(attestation->requests.load(), 2);
}

// ---------------------------------------------------------------------------------------------
// Connections and socket files

TEST_F(TransportIntegrationTest, ConnectingWhereNoServerListensNamesThePath) {
    auto result = ping(channel(), "n");
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().kind, TransportError::Kind::connectFailed);
    EXPECT_EQ(result.error().message(),
              "cannot connect to " + path + " — No such file or directory. Is qlcopyserver running?");
}

TEST_F(TransportIntegrationTest, AConnectThatIsNeverAcceptedTimesOutAfterThreeSeconds) {
    // A listener whose queue is full and that never accepts.
    asio::io_context io;
    asio::local::stream_protocol::acceptor acceptor(io);
    acceptor.open();
    acceptor.bind(asio::local::stream_protocol::endpoint(path));
    acceptor.listen(0);
    std::vector<int> fillers;
    for (int i = 0; i < 16; ++i) {
        const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::snprintf(address.sun_path, sizeof(address.sun_path), "%s", path.c_str());
        const bool queued = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
        fillers.push_back(fd);
        if (!queued) break;
    }

    auto time = std::make_shared<VirtualTime>();
    UDSChannel::Options options;
    options.socketPath = path;
    options.sleeper = time;
    auto ch = std::make_shared<UDSChannel>(options);
    auto call = asio::co_spawn(loop.executor(), ch->unary(pingPath, ""), asio::use_future);
    ASSERT_TRUE(eventually([&] { return time->sleeping() >= 2; }));  // the timeout and a retry pause
    time->advance(3s);
    ASSERT_EQ(call.wait_for(5s), std::future_status::ready);
    auto result = call.get();
    for (int fd : fillers) ::close(fd);
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error(), TransportError::connectTimedOut(3.0, path));
    EXPECT_EQ(result.error().message(),
              "cannot connect to " + path + " — connect timed out after 3.0s. Is qlcopyserver running?");
}

TEST_F(TransportIntegrationTest, AClientThatNeverClosesIsReleasedAfterTheLimit) {
    auto time = std::make_shared<VirtualTime>();
    startServer(nullptr, time);
    RawClient client(path);
    client.write(requestFrame(joinRunPath, joinRequest("r").SerializeAsString(), true));
    int data = 0;
    for (;;) {
        auto body = client.readFrame();
        ASSERT_TRUE(body);
        wire::WireStreamResponse element;
        ASSERT_TRUE(element.ParseFromString(*body));
        if (element.kind() != wire::WireStreamResponse::DATA) {
            EXPECT_EQ(element.kind(), wire::WireStreamResponse::END_OK);
            break;
        }
        ++data;
    }
    EXPECT_EQ(data, ScriptedCopyProvider::eventsPerStream);
    EXPECT_TRUE(client.peerClosed());  // the server closed its sending side after the last frame
    ASSERT_TRUE(eventually([&] { return time->sleeping() == 1; }));
    EXPECT_EQ(server->connectionCount(), 1u);
    time->advance(5s);
    EXPECT_TRUE(eventually([&] { return server->connectionCount() == 0; }));
}

TEST_F(TransportIntegrationTest, SocketFilesAreClearedOnlyWhenStale) {
    {
        // A socket file left by a server that died.
        asio::io_context io;
        asio::local::stream_protocol::acceptor dead(io);
        dead.open();
        dead.bind(asio::local::stream_protocol::endpoint(path));
    }
    ASSERT_TRUE(SocketPath::fileExists(path));
    startServer();
    ASSERT_TRUE(ping(channel(), "a"));

    // A second server must not take the socket of a live one.
    UDSServer intruder(loop.executor(), UDSServer::Options{.socketPath = path}, ServiceCatalogue{}.makeHandler());
    auto refused = intruder.start();
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error(), "another server is answering on " + path);
    ASSERT_TRUE(ping(channel(), "b"));

    // Stopping removes the file; a file that is not a socket is never removed.
    server->stop();
    EXPECT_FALSE(SocketPath::fileExists(path));
    std::ofstream(path) << "not a socket";
    UDSServer other(loop.executor(), UDSServer::Options{.socketPath = path}, ServiceCatalogue{}.makeHandler());
    auto notSocket = other.start();
    ASSERT_FALSE(notSocket);
    EXPECT_EQ(notSocket.error(), path + " exists and is not a socket; leaving it alone");
    EXPECT_TRUE(SocketPath::fileExists(path));
}

TEST_F(TransportIntegrationTest, TheSocketFileModeFollowsWhoRunsTheServer) {
    startServer();
    struct stat info {};
    ASSERT_EQ(::stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, UDSServer::defaultSocketMode(::geteuid() == 0));
    EXPECT_TRUE(S_ISSOCK(info.st_mode));

    const auto other = folder.file("m.sock");
    UDSServer custom(loop.executor(), UDSServer::Options{.socketPath = other, .socketMode = 0660u},
                     ServiceCatalogue{}.makeHandler());
    ASSERT_TRUE(custom.start());
    ASSERT_EQ(::stat(other.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0660u);
}

// ---------------------------------------------------------------------------------------------
// The client against misbehaving servers

// Accepts one connection, reads its request and answers with `reply` (raw bytes), then closes.
asio::awaitable<void> answerOnce(std::shared_ptr<asio::local::stream_protocol::acceptor> acceptor, std::string reply) {
    auto socket = std::make_shared<FramedSocket>(co_await acceptor->async_accept(asio::use_awaitable));
    co_await socket->receive();
    co_await asio::async_write(socket->socket(), asio::buffer(reply), asio::use_awaitable);
    socket->close();
}

class MisbehavingServerTest : public TransportIntegrationTest {
protected:
    std::shared_ptr<asio::local::stream_protocol::acceptor> acceptor;
    void SetUp() override {
        acceptor = std::make_shared<asio::local::stream_protocol::acceptor>(loop.executor());
        acceptor->open();
        acceptor->bind(asio::local::stream_protocol::endpoint(path));
        acceptor->listen();
    }
    void TearDown() override {
        asio::post(acceptor->get_executor(), [a = acceptor] { a->close(); });
    }
    void replyWith(std::string bytes) {
        asio::co_spawn(loop.executor(), answerOnce(acceptor, std::move(bytes)), asio::detached);
    }
};

TEST_F(MisbehavingServerTest, AnOversizedReplyHeaderFailsTheCall) {
    replyWith(std::string("\x00\x04\x00\x00\x01", 5));
    auto result = loop.run(channel()->unary(pingPath, ""));
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().kind, TransportError::Kind::receiveFailed);
    EXPECT_NE(result.error().detail.find("67108865"), std::string::npos) << result.error().detail;
}

TEST_F(MisbehavingServerTest, AServerThatClosesWithoutAnsweringIsAClosedChannel) {
    replyWith("");
    auto result = loop.run(channel()->unary(pingPath, ""));
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error(), TransportError::channelClosed());
    EXPECT_EQ(result.error().message(), "connection closed unexpectedly");
}

TEST_F(MisbehavingServerTest, AFrameThatIsNoResponseIsAFramingError) {
    replyWith(GRPCFramer::frame(std::string("\xff\xff", 2)));
    auto result = loop.run(channel()->unary(pingPath, ""));
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error(), TransportError::invalidFrame("the frame does not decode as a WireResponse"));
}

TEST_F(MisbehavingServerTest, AStreamRefusedWithAPlainResponseIsNeverAnEmptyStream) {
    // An older server answers a refused stream with a WireResponse; UNKNOWN_METHOD (1) would
    // otherwise read as END_OK.
    wire::WireResponse refusal;
    refusal.set_status(Status::UNKNOWN_METHOD);
    refusal.set_error_message("Unknown method: /x/y");
    replyWith(GRPCFramer::frame(refusal.SerializeAsString()));
    EXPECT_EQ(streamError("/x/y", ""), TransportError::statusError(Status::UNKNOWN_METHOD, "Unknown method: /x/y"));

    refusal.set_status(Status::PEER_UNAUTHENTICATED);
    refusal.set_error_message("go away");
    replyWith(GRPCFramer::frame(refusal.SerializeAsString()));
    EXPECT_EQ(streamError("/x/y", ""), TransportError::statusError(Status::PEER_UNAUTHENTICATED, "go away"));
}

TEST_F(MisbehavingServerTest, AnUnknownStreamKindEndsTheStream) {
    wire::WireStreamResponse odd;
    odd.set_kind(static_cast<wire::WireStreamResponse::Kind>(9));
    replyWith(GRPCFramer::frame(odd.SerializeAsString()));
    EXPECT_EQ(streamError("/x/y", ""), TransportError::serverFailed("stream kind UNRECOGNIZED"));
}

TEST(FramedSocketTest, OnlyOneReceiveMayWaitOnAConnection) {
    TestLoop loop(1);
    auto outcome = loop.run([]() -> asio::awaitable<std::string> {
        using namespace asio::experimental::awaitable_operators;
        auto executor = co_await asio::this_coro::executor;
        FramedSocket::Socket a(executor), b(executor);
        asio::local::connect_pair(a, b);
        FramedSocket framed(std::move(a));
        auto second = [](FramedSocket& s) -> asio::awaitable<std::string> {
            auto r = co_await s.receive();
            co_return r ? std::string("received") : r.error().detail;
        };
        auto result = co_await (framed.receive() || second(framed));
        co_return result.index() == 1 ? std::get<1>(result) : std::string("first completed");
    }());
    EXPECT_EQ(outcome, "concurrent receive on a serial connection");
}

}  // namespace
