#include "QLProtocol/runners/QlcopyLineHandler.h"

#include "QLProtocol/runners/LineAccumulator.h"

#include <gtest/gtest.h>

namespace {

namespace wire = ql4::transport::v1;
using ql::QlcopyLineHandler;
using Lines = std::vector<std::string>;

TEST(QlcopyLineHandler, UndecodableLineIsLoggedAndForwardedAndTheRunGoesOn) {
    auto out = QlcopyLineHandler::handle("{\"type\":\"progress\",");
    EXPECT_FALSE(out.event.has_value());
    EXPECT_FALSE(out.isTerminal);
    ASSERT_EQ(out.serverLog.size(), 1u);
    EXPECT_TRUE(out.serverLog[0].starts_with("ndjson decode FAILED: the line is not JSON: ")) << out.serverLog[0];
    ASSERT_TRUE(out.forward && out.forward->has_log());
    EXPECT_EQ(out.forward->log().level(), wire::LogLine::LEVEL_WARNING);
    EXPECT_EQ(out.forward->log().text(), "[qlcopy-json-decode-failed] {\"type\":\"progress\",");

    auto unknown = QlcopyLineHandler::handle(R"({"type":"checkpoint"})");
    ASSERT_EQ(unknown.serverLog, Lines({"ndjson decode FAILED: unknown event type \"checkpoint\""}));
    EXPECT_EQ(unknown.forward->log().text(), R"([qlcopy-json-decode-failed] {"type":"checkpoint"})");
}

TEST(QlcopyLineHandler, BlankLineYieldsNoEvent) {
    auto out = QlcopyLineHandler::handle("  ");
    EXPECT_EQ(out.serverLog, Lines({"ndjson parse → nil (line:   )"}));
    EXPECT_FALSE(out.forward.has_value());
    EXPECT_FALSE(out.event.has_value());
}

TEST(QlcopyLineHandler, TerminatedIsTerminalButNeitherForwardedNorIgnored) {
    auto out = QlcopyLineHandler::handle(R"({"type":"terminated","signal":9})");
    EXPECT_TRUE(out.isTerminal);
    EXPECT_TRUE(out.serverLog.empty());
    EXPECT_FALSE(out.forward.has_value());
    ASSERT_TRUE(out.event.has_value());
    EXPECT_EQ(out.event->signal, 9);
}

TEST(QlcopyLineHandler, ProgressAndSummaryAreMarkedForTheRunner) {
    auto progress = QlcopyLineHandler::handle(R"({"type":"progress","bytes_copied":5})");
    EXPECT_TRUE(progress.isProgress);
    EXPECT_FALSE(progress.isSummary);
    EXPECT_EQ(progress.forward->progress().bytes_copied(), 5);

    auto summary = QlcopyLineHandler::handle(R"({"type":"summary","errors":2})");
    EXPECT_TRUE(summary.isSummary);
    EXPECT_TRUE(summary.isTerminal);
    EXPECT_TRUE(summary.forward->has_failed());

    auto failure = QlcopyLineHandler::handle(R"({"type":"failure"})");
    EXPECT_FALSE(failure.isSummary);
    EXPECT_TRUE(failure.isTerminal);
}

// A stream as the runner reads it: pieces of arbitrary size, garbage in between, one terminal.
TEST(QlcopyLineHandler, StreamThroughTheAccumulator) {
    const std::string stream =
        "{\"type\":\"phase_started\"}\n"
        "not json at all\n"
        "\n"
        "{\"type\":\"progress\",\"work_done_bytes\":0}\n"
        "{\"type\":\"summary\",\"errors\":0}\n";
    ql::LineAccumulator acc;
    int forwarded = 0, logged = 0, terminals = 0, progress = 0;
    for (std::size_t i = 0; i < stream.size(); i += 7) {
        for (const auto& line : acc.append(std::string_view(stream).substr(i, 7))) {
            auto out = QlcopyLineHandler::handle(line);
            forwarded += out.forward.has_value();
            logged += static_cast<int>(out.serverLog.size());
            terminals += out.isTerminal;
            progress += out.isProgress;
        }
    }
    EXPECT_EQ(acc.flush(), std::nullopt);
    EXPECT_EQ(forwarded, 4);  // phase log, garbage, progress, summary
    EXPECT_EQ(logged, 2);     // decode failure, blank line
    EXPECT_EQ(terminals, 1);
    EXPECT_EQ(progress, 1);
}

}  // namespace
