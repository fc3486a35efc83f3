#include "server-main/LiveSystemServiceProvider.h"
#include "server-main/ServerOptions.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace ql {
namespace {

using ::testing::ElementsAre;

ServerOptions::Parsed parse(std::vector<std::string> words) {
    std::vector<char*> argv;
    std::string program = "qlcopyserver";
    argv.push_back(program.data());
    for (auto& word : words) argv.push_back(word.data());
    return ServerOptions::parse(static_cast<int>(argv.size()), argv.data());
}

TEST(ServerOptions, defaultsAreTheDocumentedOnes) {
    auto parsed = parse({});
    ASSERT_TRUE(std::holds_alternative<ServerOptions>(parsed));
    const auto& options = std::get<ServerOptions>(parsed);
    EXPECT_FALSE(options.stateRoot);
    EXPECT_FALSE(options.socketPath);
    EXPECT_FALSE(options.enginePath);
    EXPECT_FALSE(options.attestationMode);
    EXPECT_EQ(options.engineKillGrace, std::chrono::seconds(8));
    EXPECT_EQ(options.copyRuleCheckTimeout, std::chrono::seconds(20));
    EXPECT_EQ(options.eventBufferCap, 1000u);
    EXPECT_EQ(options.runLogLineCap, 2000u);
}

TEST(ServerOptions, everyParameterIsTaken) {
    auto parsed = parse({"--state-root", "/tmp/qls", "--socket", "/tmp/qls/s.sock", "--engine", "/opt/qlcopy",
                         "--attestation", "enforce", "--client-executable", "/usr/bin/quillo", "--event-buffer", "64",
                         "--run-log-lines", "128", "--run-history", "5", "--engine-kill-grace", "3",
                         "--copy-rule-check-timeout", "9", "--threads", "4"});
    ASSERT_TRUE(std::holds_alternative<ServerOptions>(parsed));
    const auto& options = std::get<ServerOptions>(parsed);
    EXPECT_EQ(options.stateRoot, std::filesystem::path("/tmp/qls"));
    EXPECT_EQ(options.socketPath, "/tmp/qls/s.sock");
    EXPECT_EQ(options.enginePath, "/opt/qlcopy");
    EXPECT_EQ(options.attestationMode, "enforce");
    EXPECT_THAT(options.clientExecutables, ElementsAre("/usr/bin/quillo"));
    EXPECT_EQ(options.eventBufferCap, 64u);
    EXPECT_EQ(options.runLogLineCap, 128u);
    EXPECT_EQ(options.runRecordRetention, 5u);
    EXPECT_EQ(options.engineKillGrace, std::chrono::seconds(3));
    EXPECT_EQ(options.copyRuleCheckTimeout, std::chrono::seconds(9));
    EXPECT_EQ(options.threads, 4u);
}

TEST(ServerOptions, aBadCommandLineEndsWithAnErrorStatus) {
    for (auto words : std::vector<std::vector<std::string>>{
             {"--attestation", "sometimes"}, {"--engine-kill-grace", "0"}, {"--no-such-option"}, {"stray"}}) {
        auto parsed = parse(words);
        ASSERT_TRUE(std::holds_alternative<int>(parsed)) << words[0];
        EXPECT_NE(std::get<int>(parsed), 0) << words[0];
    }
    auto help = parse({"--help"});
    ASSERT_TRUE(std::holds_alternative<int>(help));
    EXPECT_EQ(std::get<int>(help), 0);
}

TEST(ServerOptions, theEngineIsLookedForNextToTheServerThenInTheBuildTree) {
    auto candidates = ServerOptions::engineCandidates("/opt/quillo/bin/qlcopyserver");
    ASSERT_GE(candidates.size(), 2u);
    EXPECT_EQ(candidates[0], "/opt/quillo/bin/qlcopy");
    EXPECT_EQ(candidates[1], "/opt/quillo/qlcopy/qlcopy");

    ServerOptions explicitEngine;
    explicitEngine.enginePath = "/somewhere/qlcopy";
    EXPECT_EQ(explicitEngine.resolveEngine("/opt/quillo/bin/qlcopyserver"), "/somewhere/qlcopy");
}

TEST(LiveSystemServiceProvider, theBuildStampIsTheExecutablesModificationTime) {
    EXPECT_GT(LiveSystemServiceProvider::buildStampOf("/proc/self/exe"), 1'500'000'000);
    EXPECT_EQ(LiveSystemServiceProvider::buildStampOf("/no/such/file"), 0);
}

}  // namespace
}  // namespace ql
