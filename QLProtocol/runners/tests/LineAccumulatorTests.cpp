#include "QLProtocol/runners/LineAccumulator.h"

#include <gtest/gtest.h>

namespace {

using ql::LineAccumulator;
using Lines = std::vector<std::string>;

// Every line of `stream`, fed in pieces cut at the given offsets, plus the flushed tail.
Lines feed(std::string_view stream, const std::vector<std::size_t>& cuts) {
    LineAccumulator acc;
    Lines all;
    std::size_t from = 0;
    for (std::size_t to : cuts) {
        auto got = acc.append(stream.substr(from, to - from));
        all.insert(all.end(), got.begin(), got.end());
        from = to;
    }
    auto got = acc.append(stream.substr(from));
    all.insert(all.end(), got.begin(), got.end());
    if (auto tail = acc.flush()) all.push_back(*tail);
    return all;
}

const std::string kStream =
    "{\"type\":\"phase_started\"}\n"
    "\n"
    "{\"type\":\"progress\",\"current_copy_path\":\"Users/ann/Résumé – final.pages\"}\n"
    "{\"type\":\"info\",\"message\":\"x\"}\r\n"
    "{\"type\":\"summary\",\"errors\":0}";

const Lines kLines = {
    "{\"type\":\"phase_started\"}",
    "",
    "{\"type\":\"progress\",\"current_copy_path\":\"Users/ann/Résumé – final.pages\"}",
    "{\"type\":\"info\",\"message\":\"x\"}\r",
    "{\"type\":\"summary\",\"errors\":0}",
};

TEST(LineAccumulator, SplitAtEveryOffsetGivesTheSameLines) {
    ASSERT_EQ(feed(kStream, {}), kLines);
    for (std::size_t cut = 0; cut <= kStream.size(); ++cut) {
        ASSERT_EQ(feed(kStream, {cut}), kLines) << "cut at " << cut;
    }
    // Two cuts, every pair: covers pieces holding no newline, one, and several.
    for (std::size_t a = 0; a <= kStream.size(); a += 3) {
        for (std::size_t b = a; b <= kStream.size(); b += 5) ASSERT_EQ(feed(kStream, {a, b}), kLines) << a << "," << b;
    }
    // One byte at a time.
    std::vector<std::size_t> everyByte;
    for (std::size_t i = 1; i < kStream.size(); ++i) everyByte.push_back(i);
    EXPECT_EQ(feed(kStream, everyByte), kLines);
}

TEST(LineAccumulator, LineSplitAcrossTwoReadsAppearsOnceAfterTheSecond) {
    LineAccumulator acc;
    EXPECT_TRUE(acc.append("{\"type\":\"prog").empty());
    EXPECT_EQ(acc.pendingSize(), 13u);
    EXPECT_EQ(acc.append("ress\"}\n{\"ty"), Lines({"{\"type\":\"progress\"}"}));
    EXPECT_EQ(acc.append("pe\":\"info\"}\n"), Lines({"{\"type\":\"info\"}"}));
    EXPECT_EQ(acc.pendingSize(), 0u);
    EXPECT_EQ(acc.flush(), std::nullopt);
}

TEST(LineAccumulator, FlushReturnsTheUnterminatedTailOnce) {
    LineAccumulator acc;
    EXPECT_TRUE(acc.append("").empty());
    EXPECT_EQ(acc.flush(), std::nullopt);
    EXPECT_EQ(acc.append("a\nb"), Lines({"a"}));
    EXPECT_EQ(acc.flush(), std::optional<std::string>("b"));
    EXPECT_EQ(acc.flush(), std::nullopt);
    EXPECT_EQ(acc.append("\n\n"), Lines({"", ""}));
}

TEST(LineAccumulator, KeepsEmbeddedNulBytes) {
    LineAccumulator acc;
    std::string withNul("a\0b\nc", 5);
    auto lines = acc.append(withNul);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], std::string("a\0b", 3));
}

}  // namespace
