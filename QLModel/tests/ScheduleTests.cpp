#include "QLModel/Schedule.h"

#include <date/tz.h>
#include <gtest/gtest.h>

#include <algorithm>

namespace ql {
namespace {

using W = Schedule::WeekOfMonth;
using D = Schedule::DayOfWeek;

SystemTime at(const char* iso) { return Iso8601::parse(iso).value(); }
std::string text(std::optional<ModelDate> date) { return date ? Iso8601::format(*date) : "none"; }

const date::time_zone* newYork() { return date::locate_zone("America/New_York"); }
const date::time_zone* berlin() { return date::locate_zone("Europe/Berlin"); }

Schedule daily(std::int64_t hour, std::int64_t minute) {
    return Schedule{{}, {D::sunday, D::monday, D::tuesday, D::wednesday, D::thursday, D::friday, D::saturday},
                    {hour, minute}, true, false};
}

TEST(ScheduleNextFire, InactiveOrDaylessSchedulesNeverFire) {
    auto noRun = daily(9, 0);
    noRun.runOnSchedule = false;
    noRun.runOnMount = true;
    auto noDays = daily(9, 0);
    noDays.daysOfWeek.clear();
    noDays.weeksOfMonth = {W::first};
    for (const auto& s : {noRun, noDays}) {
        for (auto zone : {newYork(), berlin()}) {
            EXPECT_EQ(s.nextFireDate(at("2026-06-01T00:00:00Z"), zone), std::nullopt);
        }
    }
}

TEST(ScheduleNextFire, AnswersAreStrictlyAfterTheReference) {
    Schedule weekdays{{}, {D::monday, D::tuesday, D::wednesday, D::thursday, D::friday}, {9, 0}, true, false};
    struct Case {
        const char* reference;
        const char* expected;
    };
    // New York is UTC-4 in June: 09:00 local is 13:00Z. 2026-06-05 is a Friday.
    const Case cases[] = {
        {"2026-06-05T13:00:00Z", "2026-06-08T13:00:00Z"},      // exactly on a fire time: next one
        {"2026-06-05T13:00:00.5Z", "2026-06-08T13:00:00Z"},    // just past it
        {"2026-06-05T12:59:59.5Z", "2026-06-05T13:00:00Z"},    // just before it
        {"2026-06-04T13:00:00Z", "2026-06-05T13:00:00Z"},      // Thursday's fire -> Friday
        {"2026-06-06T02:00:00Z", "2026-06-08T13:00:00Z"},      // Friday evening local -> Monday
        {"2026-06-07T23:59:59Z", "2026-06-08T13:00:00Z"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(text(weekdays.nextFireDate(at(c.reference), newYork())), c.expected) << c.reference;
    }
    // The same rule in Berlin (UTC+2 in June).
    EXPECT_EQ(text(weekdays.nextFireDate(at("2026-06-05T07:00:00Z"), berlin())), "2026-06-08T07:00:00Z");
}

TEST(ScheduleNextFire, WeekOfMonthRulesPickTheWeekdayOrdinal) {
    struct Case {
        std::set<W> weeks;
        std::set<D> days;
        const char* reference;
        const char* expected;
    };
    const Case cases[] = {
        // Fifth Monday: none in Jan or Feb 2026; 30 March is the next.
        {{W::fifth}, {D::monday}, "2026-01-01T00:00:00Z", "2026-03-30T13:00:00Z"},
        // From just after it, the next fifth Monday is 29 June (EDT, 13:00Z).
        {{W::fifth}, {D::monday}, "2026-03-30T13:00:00Z", "2026-06-29T13:00:00Z"},
        // Then 31 August and 30 November (EST after 1 November: 14:00Z).
        {{W::fifth}, {D::monday}, "2026-07-01T00:00:00Z", "2026-08-31T13:00:00Z"},
        {{W::fifth}, {D::monday}, "2026-09-01T00:00:00Z", "2026-11-30T14:00:00Z"},
        // Second Tuesday or Thursday of each month: 8 Jan 2026 is the second Thursday.
        {{W::second}, {D::tuesday, D::thursday}, "2026-01-01T00:00:00Z", "2026-01-08T14:00:00Z"},
        {{W::second}, {D::tuesday, D::thursday}, "2026-01-08T14:00:00Z", "2026-01-13T14:00:00Z"},
        {{W::second}, {D::tuesday, D::thursday}, "2026-01-13T14:00:00Z", "2026-02-10T14:00:00Z"},
        // First and fourth Sunday.
        {{W::first, W::fourth}, {D::sunday}, "2026-02-02T00:00:00Z", "2026-02-22T14:00:00Z"},
        // All five weeks behave like every week.
        {{W::first, W::second, W::third, W::fourth, W::fifth}, {D::saturday}, "2026-01-01T00:00:00Z",
         "2026-01-03T14:00:00Z"},
    };
    for (const auto& c : cases) {
        Schedule s{c.weeks, c.days, {9, 0}, true, false};
        EXPECT_EQ(text(s.nextFireDate(at(c.reference), newYork())), c.expected) << c.reference;
    }
}

TEST(ScheduleNextFire, GivesUpAfter366DailyCandidates) {
    // A weekday number that no day carries can only be built in code (decoding refuses it);
    // the bound stops the search.
    Schedule impossible{{W::fifth}, {static_cast<D>(8)}, {9, 0}, true, false};
    EXPECT_EQ(impossible.nextFireDate(at("2026-01-01T00:00:00Z"), newYork()), std::nullopt);
    Schedule outOfRange = daily(24, 0);
    EXPECT_EQ(outOfRange.nextFireDate(at("2026-01-01T00:00:00Z"), newYork()), std::nullopt);
}

struct TransitionCase {
    const char* zoneName;
    std::int64_t hour;
    std::int64_t minute;
    // Fire times on the transition days that differ from the plain wall-clock reading.
    std::vector<std::pair<std::string, std::string>> special;  // local date -> fire instant (UTC)
};

TEST(ScheduleNextFire, DailyRunsAcrossAYearOfDaylightSavingNeverSkipOrRepeatADay) {
    const TransitionCase cases[] = {
        // 8 March: 02:00 -> 03:00, so 02:30 fires at 03:00 EDT. 1 November: 02:30 exists once (EST).
        {"America/New_York", 2, 30, {{"2026-03-08", "2026-03-08T07:00:00Z"}, {"2026-11-01", "2026-11-01T07:30:00Z"}}},
        // 1 November: 01:30 happens twice; the first (EDT) counts.
        {"America/New_York", 1, 30, {{"2026-03-08", "2026-03-08T06:30:00Z"}, {"2026-11-01", "2026-11-01T05:30:00Z"}}},
        // 29 March: 02:00 -> 03:00; 25 October: 02:30 happens twice, first in CEST.
        {"Europe/Berlin", 2, 30, {{"2026-03-29", "2026-03-29T01:00:00Z"}, {"2026-10-25", "2026-10-25T00:30:00Z"}}},
        {"Europe/Berlin", 2, 0, {{"2026-03-29", "2026-03-29T01:00:00Z"}, {"2026-10-25", "2026-10-25T00:00:00Z"}}},
        {"Europe/Berlin", 23, 59, {}},
    };
    for (const auto& c : cases) {
        auto zone = date::locate_zone(c.zoneName);
        auto schedule = daily(c.hour, c.minute);
        SystemTime reference = at("2026-01-01T00:00:00Z");
        auto expectedDay = date::floor<date::days>(zone->to_local(date::floor<std::chrono::seconds>(reference)));
        if (zone->to_local(date::floor<std::chrono::seconds>(reference)) >=
            expectedDay + std::chrono::hours{c.hour} + std::chrono::minutes{c.minute}) {
            expectedDay += date::days{1};
        }
        std::size_t specialSeen = 0;
        for (int i = 0; i < 366; ++i) {
            auto fire = schedule.nextFireDate(reference, zone);
            ASSERT_TRUE(fire) << c.zoneName << " day " << i;
            auto local = zone->to_local(*fire);
            auto day = date::floor<date::days>(local);
            auto dayText = date::format("%F", day);
            ASSERT_EQ(dayText, date::format("%F", expectedDay)) << c.zoneName << " skipped or repeated a day";
            auto special = std::find_if(c.special.begin(), c.special.end(),
                                        [&](const auto& s) { return s.first == dayText; });
            if (special != c.special.end()) {
                EXPECT_EQ(Iso8601::format(*fire), special->second) << c.zoneName << " " << dayText;
                ++specialSeen;
            } else {
                EXPECT_EQ(local - day, std::chrono::hours{c.hour} + std::chrono::minutes{c.minute})
                    << c.zoneName << " " << Iso8601::format(*fire);
            }
            reference = *fire;
            expectedDay += date::days{1};
        }
        EXPECT_EQ(specialSeen, c.special.size()) << c.zoneName;
    }
}

TEST(ScheduleNextFire, AGapOnTheFirstCandidateDoesNotSkipTheNextDay) {
    // Sunday 29 March 2026 in Berlin has no 02:30. A Monday-only rule searched from Sunday
    // morning looks at Sunday (fired at 03:00, not a Monday) and then at Monday itself.
    Schedule mondays{{}, {D::monday}, {2, 30}, true, false};
    EXPECT_EQ(text(mondays.nextFireDate(at("2026-03-28T23:30:00Z"), berlin())), "2026-03-30T00:30:00Z");
    // Same in New York on Sunday 8 March.
    EXPECT_EQ(text(mondays.nextFireDate(at("2026-03-08T05:00:00Z"), newYork())), "2026-03-09T06:30:00Z");
    // From inside the fall-back hour, after the first 01:30 has passed, the second occurrence does
    // not count: the next fire is the following day's.
    Schedule everyDay = daily(1, 30);
    EXPECT_EQ(text(everyDay.nextFireDate(at("2026-11-01T05:45:00Z"), newYork())), "2026-11-02T06:30:00Z");
}

TEST(ScheduleSummary, SentencesMatchTheJobListWording) {
    struct Case {
        std::set<W> weeks;
        std::set<D> days;
        Schedule::TimeOfDay time;
        const char* expected;
    };
    const Case cases[] = {
        {{}, {D::monday, D::tuesday, D::wednesday, D::thursday, D::friday}, {9, 5},
         "Every week, Monday through Friday at 9:05 AM"},
        {{W::first, W::third}, {D::monday}, {12, 0}, "First and Third weeks of each month, Monday at 12:00 PM"},
        {{W::first, W::second, W::third}, {D::sunday}, {0, 30},
         "First through Third weeks of each month, Sunday at 12:30 AM"},
        {{W::first, W::second, W::third, W::fifth}, {D::sunday, D::saturday}, {23, 0},
         "First through Third and Fifth weeks of each month, Sunday and Saturday at 11:00 PM"},
        {{W::first, W::second, W::third, W::fourth, W::fifth}, {D::wednesday}, {13, 7},
         "Every week, Wednesday at 1:07 PM"},
        {{W::first, W::third, W::fifth}, {D::monday, D::wednesday}, {11, 59},
         "First, Third, and Fifth weeks of each month, Monday and Wednesday at 11:59 AM"},
        {{W::fourth}, {D::monday, D::tuesday}, {1, 0}, "Fourth weeks of each month, Monday through Tuesday at 1:00 AM"},
        {{}, {D::sunday, D::tuesday, D::thursday, D::saturday}, {6, 0},
         "Every week, Sunday, Tuesday, Thursday, and Saturday at 6:00 AM"},
        {{}, {D::sunday, D::monday, D::wednesday, D::friday, D::saturday}, {18, 45},
         "Every week, Sunday through Monday, Wednesday, and Friday through Saturday at 6:45 PM"},
        {{W::second}, {}, {12, 30}, "Second weeks of each month,  at 12:30 PM"},
    };
    for (const auto& c : cases) {
        Schedule s{c.weeks, c.days, c.time, true, false};
        EXPECT_EQ(s.summary(), c.expected);
    }
}

TEST(ScheduleJson, RoundTripsAndWritesSetsAsNumberArrays) {
    Schedule s{{W::fifth, W::first}, {D::saturday, D::monday}, {23, 59}, true, true};
    auto json = toJson(s);
    EXPECT_EQ(dumpJson(json),
              R"({"daysOfWeek":[2,7],"runOnMount":true,"runOnSchedule":true,"timeOfDay":{"hour":23,"minute":59},)"
              R"("weeksOfMonth":[1,5]})");
    EXPECT_EQ(fromJson<Schedule>(json).value(), s);
    auto reordered = fromJsonText<Schedule>(
        R"({"daysOfWeek":[7,2,7],"runOnMount":true,"runOnSchedule":true,"timeOfDay":{"hour":23,"minute":59},"weeksOfMonth":[5,1]})");
    ASSERT_TRUE(reordered);
    EXPECT_EQ(*reordered, s);
}

TEST(ScheduleJson, ValuesOutsideTheirTablesFailDecoding) {
    const std::pair<const char*, const char*> cases[] = {
        {R"("weeksOfMonth":[0])", "weeksOfMonth[0]"},
        {R"("weeksOfMonth":[1,6])", "weeksOfMonth[1]"},
        {R"("weeksOfMonth":["1"])", "weeksOfMonth[0]"},
        {R"("daysOfWeek":[8])", "daysOfWeek[0]"},
        {R"("daysOfWeek":[0])", "daysOfWeek[0]"},
        {R"("daysOfWeek":2)", "daysOfWeek"},
        {R"("timeOfDay":{"hour":24,"minute":0})", "timeOfDay.hour"},
        {R"("timeOfDay":{"hour":-1,"minute":0})", "timeOfDay.hour"},
        {R"("timeOfDay":{"hour":9,"minute":60})", "timeOfDay.minute"},
        {R"("timeOfDay":{"hour":9})", "timeOfDay.minute"},
        {R"("timeOfDay":{"hour":9.5,"minute":0})", "timeOfDay.hour"},
        {R"("runOnMount":null)", "runOnMount"},
    };
    const Json base = toJson(daily(9, 0));
    for (auto [member, path] : cases) {
        Json damaged = base;
        auto patch = parseJson(std::string("{") + member + "}").value();
        for (auto& [k, v] : patch.items()) damaged[k] = v;
        auto decoded = fromJson<Schedule>(damaged);
        ASSERT_FALSE(decoded) << member;
        EXPECT_EQ(decoded.error().path, path) << member << ": " << decoded.error().description();
    }
    Json missing = base;
    missing.erase("runOnSchedule");
    EXPECT_EQ(fromJson<Schedule>(missing).error().kind, ModelDecodeError::Kind::missingField);
}

}  // namespace
}  // namespace ql
