// Attestation in virtual time: the session table (modes, lifetime, eviction), the client's
// token cache (one shared fetch, retry interval, dropping a refused token) and the Linux peer
// policy.
#include <gtest/gtest.h>

#include "QLProtocol/transport/AttestationPeerPolicy.h"
#include "QLProtocol/transport/AttestationSessions.h"
#include "QLProtocol/transport/AttestationTokenCache.h"
#include "QLProtocol/transport/FakeAttestationClient.h"

#include <asio.hpp>

#include <future>

namespace {

using namespace ql;
using namespace std::chrono_literals;

class AttestationTest : public ::testing::Test {
protected:
    asio::io_context io;
    std::shared_ptr<VirtualTime> time = std::make_shared<VirtualTime>();

    template <typename T>
    T run(asio::awaitable<T> operation) {
        auto future = asio::co_spawn(io, std::move(operation), asio::use_future);
        settle();
        EXPECT_EQ(future.wait_for(0s), std::future_status::ready);
        return future.get();
    }
    void settle() {
        io.restart();
        io.poll();
    }
    std::shared_ptr<AttestationSessions> sessions(AttestationSessions::Options options) {
        int counter = 0;
        return std::make_shared<AttestationSessions>(io.get_executor(), options, time,
                                                     [counter]() mutable { return "token-" + std::to_string(counter++); });
    }
};

TEST_F(AttestationTest, TokensAreValidUntilTheirLifetimeEnds) {
    auto table = sessions({.mode = AttestationSessions::Mode::enforce, .ttl = 10min, .maxSessions = 8});
    const auto token = run(table->issue("pid 1"));
    EXPECT_TRUE(run(table->validate(token)));
    EXPECT_FALSE(run(table->validate("")));
    EXPECT_FALSE(run(table->validate("token-unknown")));
    time->advance(10min - 1s);
    EXPECT_TRUE(run(table->validate(token)));
    time->advance(1s);
    EXPECT_FALSE(run(table->validate(token)));
    // Expired entries go when the next token is issued.
    run(table->issue("pid 2"));
    EXPECT_EQ(run(table->count()), 1u);
}

TEST_F(AttestationTest, BeyondTheLimitTheOldestTokensAreEvicted) {
    auto table = sessions({.ttl = 1h, .maxSessions = 3});
    std::vector<std::string> tokens;
    for (int i = 0; i < 5; ++i) {
        tokens.push_back(run(table->issue("client")));
        time->advance(1s);
    }
    EXPECT_EQ(run(table->count()), 3u);
    EXPECT_FALSE(run(table->validate(tokens[0])));
    EXPECT_FALSE(run(table->validate(tokens[1])));
    for (int i = 2; i < 5; ++i) EXPECT_TRUE(run(table->validate(tokens[i])));
}

TEST_F(AttestationTest, ModesDefaultByWhoRunsTheServer) {
    EXPECT_EQ(AttestationSessions::defaultMode(true), AttestationSessions::Mode::enforce);
    EXPECT_EQ(AttestationSessions::defaultMode(false), AttestationSessions::Mode::logOnly);
    EXPECT_EQ(AttestationSessions::parseMode("enforce"), AttestationSessions::Mode::enforce);
    EXPECT_EQ(AttestationSessions::parseMode("logOnly"), AttestationSessions::Mode::logOnly);
    EXPECT_EQ(AttestationSessions::parseMode("off"), std::nullopt);
    EXPECT_EQ(AttestationSessions::randomToken().size(), 32u);
    EXPECT_NE(AttestationSessions::randomToken(), AttestationSessions::randomToken());
}

TEST_F(AttestationTest, ConcurrentCallersShareOneFetch) {
    auto fake = std::make_shared<FakeAttestationClient>("t1");
    fake->setDelay(time, 100ms);
    AttestationTokenCache cache(io.get_executor(), fake, time);
    std::vector<std::future<std::optional<std::string>>> callers;
    for (int i = 0; i < 10; ++i) callers.push_back(asio::co_spawn(io, cache.currentToken(), asio::use_future));
    settle();
    EXPECT_EQ(fake->requests(), 1);
    time->advance(100ms);
    settle();
    for (auto& caller : callers) {
        ASSERT_EQ(caller.wait_for(0s), std::future_status::ready);
        EXPECT_EQ(caller.get(), "t1");
    }
    // Cached from now on.
    EXPECT_EQ(run(cache.currentToken()), "t1");
    EXPECT_EQ(fake->requests(), 1);
}

TEST_F(AttestationTest, AfterAFailureTheCacheWaitsForTheRetryInterval) {
    auto fake = std::make_shared<FakeAttestationClient>(std::nullopt);
    AttestationTokenCache cache(io.get_executor(), fake, time, {.retryInterval = 5s});
    EXPECT_EQ(run(cache.currentToken()), std::nullopt);
    fake->setToken("t2");
    time->advance(4s);
    EXPECT_EQ(run(cache.currentToken()), std::nullopt);
    EXPECT_EQ(fake->requests(), 1);
    time->advance(1s);
    EXPECT_EQ(run(cache.currentToken()), "t2");
    EXPECT_EQ(fake->requests(), 2);
}

TEST_F(AttestationTest, ARefusedTokenIsDroppedButANewerOneIsKept) {
    auto fake = std::make_shared<FakeAttestationClient>("old");
    AttestationTokenCache cache(io.get_executor(), fake, time);
    EXPECT_EQ(run(cache.currentToken()), "old");
    fake->setToken("new");
    run(cache.invalidate("something else"));
    EXPECT_EQ(run(cache.currentToken()), "old");
    run(cache.invalidate("old"));
    EXPECT_EQ(run(cache.currentToken()), "new");
    EXPECT_EQ(fake->requests(), 2);
}

TEST(AttestationPeerPolicyTest, OnlyConfiguredClientsOfTheRightUser) {
    auto userPolicy = AttestationPeerPolicy::forServer({"/usr/bin/quillo", "/usr/bin/QuilloMenu"}, 1000);
    auto rootPolicy = AttestationPeerPolicy::forServer({"/usr/bin/quillo"}, 0);
    ASSERT_EQ(userPolicy.requiredUid, 1000u);
    EXPECT_FALSE(rootPolicy.requiredUid);

    struct Case {
        const AttestationPeerPolicy* policy;
        AttestationPeer peer;
        std::optional<std::string> refusal;  // the end of the reason, or none when accepted
    };
    const std::vector<Case> cases = {
        {&userPolicy, {42, 1000, "/usr/bin/quillo"}, std::nullopt},
        {&userPolicy, {42, 1000, "/usr/bin/QuilloMenu"}, std::nullopt},
        {&userPolicy, {42, 1001, "/usr/bin/quillo"}, "runs as another user than this server (uid 1000)"},
        {&userPolicy, {42, 1000, "/usr/bin/python3"}, "not a Quillo client executable"},
        {&userPolicy, {42, 1000, "/usr/bin/quillo (deleted)"}, "its executable was replaced or deleted since it started"},
        {&userPolicy, {42, 1000, ""}, "its executable could not be identified"},
        {&rootPolicy, {42, 501, "/usr/bin/quillo"}, std::nullopt},
        {&rootPolicy, {42, 0, "/usr/bin/bash"}, "not a Quillo client executable"},
    };
    for (const auto& c : cases) {
        auto verdict = c.policy->check(c.peer);
        if (!c.refusal) {
            ASSERT_TRUE(verdict) << verdict.error();
            EXPECT_EQ(*verdict, "pid 42, uid " + std::to_string(c.peer.uid) + ", " + c.peer.executable);
        } else {
            ASSERT_FALSE(verdict) << c.peer.executable;
            EXPECT_TRUE(verdict.error().ends_with(*c.refusal)) << verdict.error();
        }
    }
}

}  // namespace
