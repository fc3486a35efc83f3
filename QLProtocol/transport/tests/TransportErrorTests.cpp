// The sentences a caller sees, the refusal texts, method paths and the socket-path rules.
#include <gtest/gtest.h>

#include "QLProtocol/transport/CallRefusal.h"
#include "QLProtocol/transport/MethodPath.h"
#include "QLProtocol/transport/SocketPath.h"
#include "QLProtocol/transport/TransportError.h"

#include <map>

namespace {

using namespace ql;
using Status = ql4::transport::v1::WireResponse;

TEST(TransportErrorTest, EveryCaseHasItsSentence) {
    const std::string path = "/tmp/qlcopyserver.sock";
    const std::vector<std::pair<TransportError, std::string>> cases = {
        {TransportError::unknownMethod("/a/B"), "server doesn't know the method /a/B. Daemon may be an older build."},
        {TransportError::decodeFailed("bad item"), "server returned bytes the client couldn't decode: bad item"},
        {TransportError::handlerThrew("boom"), "server-side error: boom"},
        {TransportError::connectFailed("Connection refused", path),
         "cannot connect to /tmp/qlcopyserver.sock — Connection refused. Is qlcopyserver running?"},
        {TransportError::connectFailed("Connection refused"), "cannot connect — Connection refused. Is qlcopyserver running?"},
        {TransportError::sendFailed("Broken pipe", path),
         "could not send the request to /tmp/qlcopyserver.sock — Broken pipe. Is qlcopyserver running?"},
        {TransportError::sendFailed("Broken pipe"), "could not send the request — Broken pipe. Is qlcopyserver running?"},
        {TransportError::receiveFailed("Connection reset by peer", path),
         "connection to /tmp/qlcopyserver.sock dropped while reading the reply — Connection reset by peer. Is "
         "qlcopyserver running?"},
        {TransportError::receiveFailed("Connection reset by peer"),
         "connection dropped while reading the reply — Connection reset by peer. Is qlcopyserver running?"},
        {TransportError::serverFailed("engine died"), "server failure: engine died"},
        {TransportError::statusError(Status::HANDLER_ERROR, "no such job"), "server returned error: no such job"},
        {TransportError::invalidFrame("short"), "wire framing error: short"},
        {TransportError::channelClosed(), "connection closed unexpectedly"},
        {TransportError::connectTimedOut(3.0), "cannot connect — connect timed out after 3.0s. Is qlcopyserver running?"},
    };
    for (const auto& [error, text] : cases) EXPECT_EQ(error.message(), text);
}

TEST(TransportErrorTest, TimeoutsKeepOneDecimalWhenIntegral) {
    EXPECT_EQ(TransportError::formatSeconds(3.0), "3.0");
    EXPECT_EQ(TransportError::formatSeconds(10.0), "10.0");
    EXPECT_EQ(TransportError::formatSeconds(0.25), "0.25");
    EXPECT_EQ(TransportError::formatSeconds(2.5), "2.5");
}

TEST(CallRefusalTest, RefusedStreamsCarryTheStatusNameAndComeBackUnchanged) {
    const std::vector<CallRefusal> refusals = {
        CallRefusal::unknownMethod("/a/b"),
        CallRefusal::wrongCallKind("/ql4.transport.v1.TileService/WatchTiles", true),
        CallRefusal::wrongCallKind("/ql4.transport.v1.TileService/ListTiles", false),
        CallRefusal::decodeError("bad body"),
        CallRefusal::handlerError("no: really"),
        CallRefusal::internalError("out of memory"),
        CallRefusal::unauthenticated(),
    };
    for (const auto& refusal : refusals) {
        const auto end = refusal.streamEndMessage();
        EXPECT_EQ(end.substr(0, end.find(':')), Status::Status_Name(refusal.status));
        EXPECT_EQ(CallRefusal::fromStreamEnd(end), refusal) << end;
    }
    EXPECT_EQ(CallRefusal::unauthenticated().streamEndMessage(),
              "PEER_UNAUTHENTICATED: peer not attested — obtain a session token via the XPC attestation service");
    EXPECT_EQ(refusals[1].message, "Unknown method: /ql4.transport.v1.TileService/WatchTiles (expected server-stream)");
    EXPECT_EQ(refusals[2].message, "Unknown method: /ql4.transport.v1.TileService/ListTiles (expected unary)");
    // Ordinary stream failures are not refusals.
    for (const auto* text : {"the engine exited with status 3", "OK: fine", "NOT_A_STATUS: x", "HANDLER_ERROR"}) {
        EXPECT_FALSE(CallRefusal::fromStreamEnd(text)) << text;
    }
}

TEST(MethodPathTest, SplitsServiceAndMethodAtTheSecondSlash) {
    EXPECT_EQ(MethodPath::parse("/ql4.transport.v1.TileService/WatchTiles"),
              (MethodPath{"ql4.transport.v1.TileService", "WatchTiles"}));
    EXPECT_EQ(MethodPath::parse("/s/a/b"), (MethodPath{"s", "a/b"}));
    for (const auto* bad : {"", "/", "s/m", "/s", "/s/", "//m"}) EXPECT_FALSE(MethodPath::parse(bad)) << bad;
    EXPECT_EQ(MethodPath::make("ql4.transport.v1.LockService", "Lock"), "/ql4.transport.v1.LockService/Lock");
}

TEST(SocketPathTest, ClientRule) {
    struct Case {
        std::map<std::string, std::string> environment;
        std::vector<std::string> existing;
        bool linuxHost;
        std::string expected;
    };
    const std::vector<Case> cases = {
        {{{"QLCOPYSERVER_SOCK", "/x/custom.sock"}}, {"/var/run/qlcopyserver.sock"}, true, "/x/custom.sock"},
        {{{"QLCOPYSERVER_SOCK", ""}}, {"/var/run/qlcopyserver.sock"}, false, "/var/run/qlcopyserver.sock"},
        {{}, {}, false, "/tmp/qlcopyserver.sock"},
        {{{"XDG_RUNTIME_DIR", "/run/user/1000"}}, {"/run/user/1000/qlcopyserver.sock"}, true,
         "/run/user/1000/qlcopyserver.sock"},
        {{{"XDG_RUNTIME_DIR", "/run/user/1000"}}, {}, true, "/tmp/qlcopyserver.sock"},
        {{{"XDG_RUNTIME_DIR", "/run/user/1000"}}, {"/run/user/1000/qlcopyserver.sock"}, false, "/tmp/qlcopyserver.sock"},
    };
    for (const auto& c : cases) {
        auto environment = [&](std::string_view name) -> std::optional<std::string> {
            auto it = c.environment.find(std::string(name));
            if (it == c.environment.end()) return std::nullopt;
            return it->second;
        };
        auto exists = [&](const std::string& p) {
            return std::find(c.existing.begin(), c.existing.end(), p) != c.existing.end();
        };
        EXPECT_EQ(SocketPath::forClient(environment, exists, c.linuxHost), c.expected);
    }
}

TEST(SocketPathTest, ServerDefaultsAndTheAttestationSocket) {
    auto none = [](std::string_view) -> std::optional<std::string> { return std::nullopt; };
    auto runtime = [](std::string_view name) -> std::optional<std::string> {
        if (name == "XDG_RUNTIME_DIR") return std::string("/run/user/1000/");
        return std::nullopt;
    };
    EXPECT_EQ(SocketPath::serverDefault(true, runtime, true), "/run/qlcopyserver.sock");
    EXPECT_EQ(SocketPath::serverDefault(false, runtime, true), "/run/user/1000/qlcopyserver.sock");
    EXPECT_EQ(SocketPath::serverDefault(false, none, true), "/tmp/qlcopyserver.sock");
    EXPECT_EQ(SocketPath::serverDefault(true, none, false), "/var/run/qlcopyserver.sock");
    EXPECT_EQ(SocketPath::attestationPath("/run/qlcopyserver.sock"), "/run/qlcopyserver.attest.sock");
    EXPECT_EQ(SocketPath::attestationPath("/tmp/custom"), "/tmp/custom.attest.sock");
}

}  // namespace
