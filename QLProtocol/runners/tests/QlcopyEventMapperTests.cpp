#include "QLProtocol/runners/QlcopyEventMapper.h"

#include <google/protobuf/util/json_util.h>
#include <google/protobuf/util/message_differencer.h>
#include <gtest/gtest.h>

#include <fstream>

namespace {

namespace wire = ql4::transport::v1;
using ql::QlcopyEvent;
using ql::QlcopyEventMapper;

std::vector<std::string> readLines(const std::string& name) {
    std::ifstream in(std::string(QL_TEST_SOURCE_DIR) + "/fixtures/" + name);
    EXPECT_TRUE(in) << "missing fixture " << name;
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

QlcopyEvent decoded(const std::string& line) {
    auto result = QlcopyEvent::decode(line);
    EXPECT_TRUE(result.has_value()) << line << ": " << (result ? "" : result.error().message());
    EXPECT_TRUE(result && result->has_value()) << line;
    return result && *result ? **result : QlcopyEvent{};
}

QlcopyEventMapper::Mapped mapLine(const std::string& line) { return QlcopyEventMapper::map(decoded(line)); }

// Each line of `<name>.ndjson` decodes and maps to the payload and terminal flag on the same line
// of `<name>.expected.ndjson` ({"terminal": bool, "payload": ClonerEvent in protobuf's JSON form}).
void checkRecordedStream(const std::string& name) {
    auto events = readLines(name + ".ndjson");
    auto expectations = readLines(name + ".expected.ndjson");
    ASSERT_EQ(events.size(), expectations.size()) << name;
    for (std::size_t i = 0; i < events.size(); ++i) {
        SCOPED_TRACE(name + " line " + std::to_string(i + 1) + ": " + events[i]);
        auto expectation = ql::parseJson(expectations[i]);
        ASSERT_TRUE(expectation.has_value());
        auto mapped = mapLine(events[i]);
        EXPECT_EQ(mapped.isTerminal, expectation->at("terminal").get<bool>());
        if (!expectation->contains("payload")) {
            EXPECT_FALSE(mapped.payload.has_value());
            continue;
        }
        wire::ClonerEvent expected;
        auto status = google::protobuf::util::JsonStringToMessage(expectation->at("payload").dump(), &expected);
        ASSERT_TRUE(status.ok()) << status.ToString();
        ASSERT_TRUE(mapped.payload.has_value());
        google::protobuf::util::MessageDifferencer differ;
        std::string differences;
        differ.ReportDifferencesToString(&differences);
        EXPECT_TRUE(differ.Compare(expected, *mapped.payload)) << differences;
        EXPECT_FALSE(mapped.payload->has_run_id());
        EXPECT_EQ(mapped.payload->timestamp_unix_nanos(), 0);
    }
}

TEST(QlcopyEventMapper, RecordedRunWithErrors) { checkRecordedStream("run-with-errors"); }

TEST(QlcopyEventMapper, RecordedItemsScanModesAndTerminals) { checkRecordedStream("terminal-variants"); }

TEST(QlcopyEventMapper, FixturesCoverEveryEventKind) {
    std::set<QlcopyEvent::Kind> seen;
    for (const auto* name : {"run-with-errors.ndjson", "terminal-variants.ndjson"}) {
        for (const auto& line : readLines(name)) seen.insert(decoded(line).type);
    }
    for (auto kind : QlcopyEvent::kAllKinds) EXPECT_TRUE(seen.count(kind)) << QlcopyEvent::kindName(kind);
}

TEST(QlcopyEventMapper, WorkDoneBytesKeepsItsPresence) {
    auto absent = mapLine(R"({"type":"progress","bytes_evaluated":10})");
    ASSERT_TRUE(absent.payload && absent.payload->has_progress());
    EXPECT_FALSE(absent.payload->progress().has_work_done_bytes());

    auto zero = mapLine(R"({"type":"progress","work_done_bytes":0})");
    ASSERT_TRUE(zero.payload && zero.payload->has_progress());
    EXPECT_TRUE(zero.payload->progress().has_work_done_bytes());
    EXPECT_EQ(zero.payload->progress().work_done_bytes(), 0);

    auto summary = mapLine(R"({"type":"summary"})");
    ASSERT_TRUE(summary.payload && summary.payload->has_completed());
    EXPECT_FALSE(summary.payload->completed().has_scout_total_files());
    EXPECT_FALSE(summary.payload->completed().has_scout_total_bytes());
}

TEST(QlcopyEventMapper, SummaryErrorCountDecidesTheVerdict) {
    struct Case {
        const char* line;
        bool failed;
        const char* message;
    };
    const Case cases[] = {
        {R"({"type":"summary","errors":1})", true, "The copy reported 1 error (see log for details)"},
        {R"({"type":"summary","errors":3})", true, "The copy reported 3 errors (see log for details)"},
        {R"({"type":"summary","errors":0})", false, ""},
        {R"({"type":"summary"})", false, ""},
        {R"({"type":"summary","errors":-2})", false, ""},
        {R"({"type":"summary","errors":2,"interrupted":true})", true, "The copy reported 2 errors (see log for details)"},
    };
    for (const auto& c : cases) {
        auto mapped = mapLine(c.line);
        EXPECT_TRUE(mapped.isTerminal) << c.line;
        ASSERT_TRUE(mapped.payload) << c.line;
        EXPECT_EQ(mapped.payload->has_failed(), c.failed) << c.line;
        EXPECT_EQ(mapped.payload->has_completed(), !c.failed) << c.line;
        if (c.failed) {
            EXPECT_EQ(mapped.payload->failed().error_message(), c.message);
        }
    }
}

TEST(QlcopyEventMapper, ElapsedSecondsBecomeTruncatedNanoseconds) {
    struct Case {
        const char* line;
        std::int64_t nanos;
    };
    const Case cases[] = {
        {R"({"type":"summary","elapsed_s":0.1})", 100000000},
        {R"({"type":"summary","elapsed_s":1.0000000019})", 1000000001},
        {R"({"type":"summary","elapsed_s":1e300})", std::numeric_limits<std::int64_t>::max()},
        {R"({"type":"summary","elapsed_s":-1e300})", std::numeric_limits<std::int64_t>::min()},
        {R"({"type":"summary"})", 0},
    };
    for (const auto& c : cases) {
        auto mapped = mapLine(c.line);
        ASSERT_TRUE(mapped.payload && mapped.payload->has_completed()) << c.line;
        EXPECT_EQ(mapped.payload->completed().elapsed_nanos(), c.nanos) << c.line;
    }
    auto huge = mapLine(R"({"type":"summary","deferred_count":9999999999})");
    EXPECT_EQ(huge.payload->completed().deferred_count(), std::numeric_limits<std::int32_t>::max());
}

}  // namespace
