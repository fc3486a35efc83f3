// Dates, JSON helpers and logging.
#include "QLSupport/Iso8601.h"
#include "QLSupport/Json.h"
#include "QLSupport/Log.h"

#include <gtest/gtest.h>

namespace ql {
namespace {

using namespace std::chrono;

TEST(Iso8601, FormatsUtcWholeSeconds) {
    SystemTime t = SystemTime{seconds{1'795'235'940}} + milliseconds{999};
    EXPECT_EQ(Iso8601::format(t), "2026-11-21T04:39:00Z");
}

TEST(Iso8601, ParsesTheAcceptedShapes) {
    const SystemTime base = SystemTime{seconds{1'795'235'940}};
    struct Case {
        const char* text;
        SystemTime expected;
    } cases[] = {
        {"2026-11-21T04:39:00Z", base},
        {"2026-11-21T04:39:00.5Z", base + milliseconds{500}},
        {"2026-11-21T04:39:00.123456789Z", base + nanoseconds{123456789}},
        {"2026-11-21T05:39:00+01:00", base},
        {"2026-11-20T23:39:00-0500", base},
        {"2026-11-21t04:39:00z", base},
    };
    for (const auto& c : cases) {
        auto parsed = Iso8601::parse(c.text);
        ASSERT_TRUE(parsed) << c.text;
        EXPECT_EQ(*parsed, c.expected) << c.text;
    }
}

TEST(Iso8601, RefusesMalformedDates) {
    for (const char* bad : {"", "2026-11-21", "2026-11-21T04:39Z", "2026-13-01T00:00:00Z", "2026-02-30T00:00:00Z",
                            "2026-11-21T24:00:00Z", "2026-11-21T04:39:00", "2026-11-21T04:39:00.Z",
                            "2026-11-21T04:39:00Zjunk", "x026-11-21T04:39:00Z"}) {
        EXPECT_FALSE(Iso8601::parse(bad)) << bad;
    }
}

TEST(Iso8601, UnixNanosRoundTrip) {
    SystemTime t = SystemTime{seconds{1'795'235'940}} + nanoseconds{17};
    EXPECT_EQ(fromUnixNanos(toUnixNanos(t)), t);
    EXPECT_EQ(toUnixNanos(SystemTime{}), 0);
}

TEST(Json, ParseErrorsAreValuesAndDumpSortsKeys) {
    EXPECT_FALSE(parseJson("{\"a\": "));
    EXPECT_FALSE(parseJson(""));
    auto ok = parseJson(R"({"b":1,"a":[true,null]})");
    ASSERT_TRUE(ok);
    EXPECT_EQ(dumpJson(*ok), R"({"a":[true,null],"b":1})");
    EXPECT_EQ(jsonTypeName(Json(3)), "integer");
    EXPECT_EQ(jsonTypeName(Json("x")), "string");
}

TEST(Log, LinesCarryTheirTagAndAreCaptured) {
    LogCapture capture;
    Log::line("CopyTileStore", "saved 3 jobs");
    Log::f("dispatch", "{} → {}", "erase", "smart");
    Log::raw("post-copy: done");
    EXPECT_EQ(capture.lines(),
              (std::vector<std::string>{"[CopyTileStore] saved 3 jobs", "[dispatch] erase → smart", "post-copy: done"}));
}

}  // namespace
}  // namespace ql
