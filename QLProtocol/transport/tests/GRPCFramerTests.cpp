// The frame decoder on its own: any split of the byte stream yields each body exactly once, the
// cap is enforced at the header, and empty bodies are frames like any other.
#include <gtest/gtest.h>

#include "QLProtocol/transport/GRPCFramer.h"

#include <string>
#include <vector>

namespace {

using ql::GRPCFramer;

std::vector<std::string> feedAll(GRPCFramer& framer, const std::vector<std::string_view>& chunks, std::error_code* error = nullptr) {
    std::vector<std::string> bodies;
    for (auto chunk : chunks) {
        auto ec = framer.feed(chunk, [&](std::string body) { bodies.push_back(std::move(body)); });
        if (ec && error) *error = ec;
    }
    return bodies;
}

TEST(GRPCFramerTest, EverySplitOfAStreamOfFramesDeliversEachBodyOnce) {
    const std::vector<std::string> bodies = {"first", "", std::string(300, 'x'), "last"};
    std::string stream;
    for (const auto& b : bodies) stream += GRPCFramer::frame(b);
    for (std::size_t a = 0; a <= stream.size(); ++a) {
        for (std::size_t b = a; b <= stream.size(); b += 7) {
            GRPCFramer framer;
            const std::string_view s(stream);
            auto got = feedAll(framer, {s.substr(0, a), s.substr(a, b - a), s.substr(b)});
            ASSERT_EQ(got, bodies) << "split at " << a << " and " << b;
            EXPECT_TRUE(framer.atFrameBoundary());
        }
    }
    // And one byte at a time.
    GRPCFramer framer;
    std::vector<std::string_view> bytes;
    for (std::size_t i = 0; i < stream.size(); ++i) bytes.push_back(std::string_view(stream).substr(i, 1));
    EXPECT_EQ(feedAll(framer, bytes), bodies);
}

TEST(GRPCFramerTest, TheHeaderIsBigEndianAndTheFlagIsIgnored) {
    EXPECT_EQ(GRPCFramer::header(0x01020304), (std::array<std::uint8_t, 5>{0, 1, 2, 3, 4}));
    EXPECT_EQ(GRPCFramer::announcedLength(std::string("\x00\x04\x00\x00\x01", 5)), 67'108'865u);
    GRPCFramer framer;
    auto got = feedAll(framer, {std::string_view("\x7f\x00\x00\x00\x02hi", 7)});
    EXPECT_EQ(got, std::vector<std::string>{"hi"});
}

TEST(GRPCFramerTest, AHeaderOverTheCapFailsWithBadMessageAndStaysFailed) {
    struct Case {
        std::string header;
        bool accepted;
    };
    const std::vector<Case> cases = {
        {std::string("\x00\x04\x00\x00\x01", 5), false},  // 64 MiB + 1
        {std::string("\x00\xff\xff\xff\xff", 5), false},
        {std::string("\x00\x04\x00\x00\x00", 5), true},  // exactly 64 MiB: waits for the body
    };
    for (const auto& c : cases) {
        GRPCFramer framer;
        std::error_code error;
        // A complete frame before the bad header is still delivered.
        const std::string stream = GRPCFramer::frame("ok") + c.header;
        auto got = feedAll(framer, {stream}, &error);
        EXPECT_EQ(got, std::vector<std::string>{"ok"});
        if (c.accepted) {
            EXPECT_FALSE(error);
            EXPECT_FALSE(framer.failed());
            ASSERT_TRUE(std::holds_alternative<GRPCFramer::AwaitingBody>(framer.state()));
            EXPECT_EQ(std::get<GRPCFramer::AwaitingBody>(framer.state()).length, GRPCFramer::maxBodyLength);
        } else {
            EXPECT_EQ(error, std::errc::bad_message);
            EXPECT_TRUE(framer.failed());
            EXPECT_EQ(framer.rejectedLength(), GRPCFramer::announcedLength(c.header));
            auto more = framer.feed(GRPCFramer::frame("late"), [](std::string) { ADD_FAILURE() << "delivered after failing"; });
            EXPECT_EQ(more, std::errc::bad_message);
        }
    }
}

TEST(GRPCFramerTest, ALyingHeaderReservesOnlyWhatArrives) {
    GRPCFramer framer;
    feedAll(framer, {std::string_view("\x00\x04\x00\x00\x00" "abc", 8)});
    const auto& body = std::get<GRPCFramer::AwaitingBody>(framer.state());
    EXPECT_EQ(body.message, "abc");
    EXPECT_LE(body.message.capacity(), 2u << 20);
    EXPECT_FALSE(framer.atFrameBoundary());
}

}  // namespace
