#include "QLProtocol/server/approval/LivePolkitApproval.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace ql {
namespace {

// A /proc/<pid>/stat line for a process named `comm` whose field 22 is `startTime`.
std::string statLine(const std::string& comm, const std::string& startTime) {
    std::string line = "4242 (" + comm + ") S";
    for (int field = 4; field <= 52; ++field) line += " " + (field == 22 ? startTime : std::to_string(field * 10));
    return line + "\n";
}

TEST(ProcfsTests, StartTimeIsField22CountedFromTheLastParenthesis) {
    struct Case {
        const char* name;
        std::string stat;
        std::optional<std::uint64_t> expected;
    };
    const Case cases[] = {
        {"plain name", statLine("sleep", "98765"), 98765},
        {"name with spaces", statLine("Web Content", "5"), 5},
        {"name with ') ' inside", statLine("a) 1 2 (b", "18446744073709551615"), 18446744073709551615ull},
        {"line cut before field 22", "4242 (sleep) S 1 2 3\n", std::nullopt},
        {"field 22 not a number", statLine("sleep", "12x"), std::nullopt},
        {"field 22 negative", statLine("sleep", "-3"), std::nullopt},
        {"no closing parenthesis", "4242 (sleep S 1 2 3", std::nullopt},
        {"empty", "", std::nullopt},
    };
    for (const auto& c : cases) EXPECT_EQ(procfs::startTimeFromStat(c.stat), c.expected) << c.name;
}

TEST(ProcfsTests, RealUidIsTheFirstNumberOfTheUidLine) {
    struct Case {
        const char* name;
        std::string status;
        std::optional<std::uint32_t> expected;
    };
    const Case cases[] = {
        {"all the same", "Name:\tsleep\nUmask:\t0022\nUid:\t1001\t1001\t1001\t1001\nGid:\t7\t7\t7\t7\n", 1001},
        {"setuid program: real differs from effective", "Name:\tsu\nUid:\t1000\t0\t0\t0\n", 1000},
        {"Uid line last, no newline", "Name:\tx\nUid:\t0\t0\t0\t0", 0},
        {"no Uid line", "Name:\tsleep\nGid:\t7\t7\t7\t7\n", std::nullopt},
        {"Uid line empty", "Name:\tsleep\nUid:\t\n", std::nullopt},
        {"Uid not a number", "Uid:\tabc\t0\t0\t0\n", std::nullopt},
        {"a line that merely mentions Uid", "Name:\tUid:\t5\n", std::nullopt},
    };
    for (const auto& c : cases) EXPECT_EQ(procfs::realUidFromStatus(c.status), c.expected) << c.name;
}

}  // namespace
}  // namespace ql
