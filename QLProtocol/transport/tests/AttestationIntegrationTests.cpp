// The Linux attestation route over real sockets: the server identifies this test process by its
// credentials and executable and issues a token only when the policy names them; a client whose
// token cache fetches through that route can then drive an enforcing server.
#include "TransportTestSupport.h"

#include "QLProtocol/transport/AttestationTokenCache.h"
#include "QLProtocol/transport/LiveAttestationClient.h"
#include "QLProtocol/transport/LiveAttestationListener.h"
#include "QLProtocol/transport/SocketPath.h"
#include "QLProtocol/transport/UDSServer.h"
#include "QLSupport/Log.h"

#include <climits>
#include <unistd.h>

namespace {

using namespace ql;
using namespace ql::test;
using namespace std::chrono_literals;

std::string ownExecutable() {
    char target[PATH_MAX];
    const auto n = ::readlink("/proc/self/exe", target, sizeof(target) - 1);
    return n > 0 ? std::string(target, static_cast<std::size_t>(n)) : std::string();
}

class AttestationRouteTest : public ::testing::Test {
protected:
    TestLoop loop;
    TempFolder folder;
    std::string mainPath = folder.file("qlcopyserver.sock");
    std::string attestPath = SocketPath::attestationPath(mainPath);
    std::shared_ptr<AttestationSessions> sessions = std::make_shared<AttestationSessions>(
        loop.executor(), AttestationSessions::Options{.mode = AttestationSessions::Mode::enforce},
        std::make_shared<LiveClock>());

    std::unique_ptr<LiveAttestationListener> listen(AttestationPeerPolicy policy) {
        auto listener = std::make_unique<LiveAttestationListener>(
            loop.executor(), LiveAttestationListener::Options{.socketPath = attestPath, .policy = std::move(policy)},
            sessions);
        auto started = listener->start();
        EXPECT_TRUE(started) << (started ? "" : started.error());
        return listener;
    }
    std::optional<std::string> fetch() {
        LiveAttestationClient client({.attestationSocketPath = attestPath});
        return loop.run(client.fetchToken(2s));
    }
};

TEST_F(AttestationRouteTest, AConfiguredClientOfTheSameUserGetsAValidToken) {
    auto listener = listen(AttestationPeerPolicy::forServer({ownExecutable()}, ::geteuid()));
    auto token = fetch();
    ASSERT_TRUE(token);
    EXPECT_EQ(token->size(), 32u);
    EXPECT_TRUE(loop.run(sessions->validate(*token)));
}

TEST_F(AttestationRouteTest, OtherExecutablesAndOtherUsersGetNoToken) {
    struct Case {
        AttestationPeerPolicy policy;
        std::string logged;
    };
    const std::vector<Case> cases = {
        {AttestationPeerPolicy{{"/usr/bin/true"}, std::nullopt}, "not a Quillo client executable"},
        {AttestationPeerPolicy{{ownExecutable()}, ::geteuid() + 1}, "runs as another user than this server"},
    };
    for (const auto& c : cases) {
        LogCapture log;
        auto listener = listen(c.policy);
        EXPECT_FALSE(fetch());
        EXPECT_TRUE(eventually([&] { return log.contains(c.logged); })) << c.logged;
        EXPECT_TRUE(log.contains("[attest] refused a token to pid " + std::to_string(::getpid())));
        listener->stop();
        EXPECT_TRUE(eventually([&] { return !SocketPath::fileExists(attestPath); }));
    }
    EXPECT_EQ(loop.run(sessions->count()), 0u);
}

TEST_F(AttestationRouteTest, NoServiceMeansNoTokenWithinTheTimeout) {
    EXPECT_FALSE(fetch());
}

TEST_F(AttestationRouteTest, AClientAttestedThroughTheRouteDrivesAnEnforcingServer) {
    auto listener = listen(AttestationPeerPolicy::forServer({ownExecutable()}, ::geteuid()));
    auto system = std::make_shared<EchoSystemProvider>();
    ServiceCatalogue catalogue;
    catalogue.system = system;
    UDSServer server(loop.executor(), {.socketPath = mainPath, .sessions = sessions}, catalogue.makeHandler());
    ASSERT_TRUE(server.start());

    auto cache = std::make_shared<AttestationTokenCache>(
        loop.executor(), std::make_shared<LiveAttestationClient>(LiveAttestationClient::Options{.attestationSocketPath = attestPath}),
        std::make_shared<LiveClock>());
    SystemServiceClient client(std::make_shared<UDSChannel>(UDSChannel::Options{.socketPath = mainPath, .tokenCache = cache}));
    auto pong = loop.run(client.call<&SystemServiceProvider::ping>(pingRequest("attested")));
    ASSERT_TRUE(pong) << pong.error().message();
    EXPECT_EQ(pong->nonce(), "attested");
    EXPECT_EQ(system->calls.load(), 1);
}

}  // namespace
