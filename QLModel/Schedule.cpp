#include "QLModel/Schedule.h"

#include "QLModel/JsonObjectReader.h"

#include <date/date.h>
#include <date/tz.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>

namespace ql {
namespace {

using std::chrono::hours;
using std::chrono::minutes;
using std::chrono::seconds;

bool timeInRange(const Schedule::TimeOfDay& time) {
    return time.hour >= 0 && time.hour <= 23 && time.minute >= 0 && time.minute <= 59;
}

// The instant at which `time` happens on local calendar day `day`: a time skipped by a
// daylight-saving jump maps to the first instant after the gap, a repeated time to its first
// occurrence.
date::sys_seconds fireInstant(date::local_days day, const Schedule::TimeOfDay& time, const date::time_zone& zone) {
    date::local_seconds wall = day + hours{time.hour} + minutes{time.minute};
    auto info = zone.get_info(wall);
    switch (info.result) {
        case date::local_info::unique:
        case date::local_info::ambiguous:
            return date::sys_seconds{wall.time_since_epoch()} - info.first.offset;
        case date::local_info::nonexistent:
            return info.second.begin;
    }
    return date::sys_seconds{wall.time_since_epoch()} - info.first.offset;
}

date::local_days localDay(date::sys_seconds instant, const date::time_zone& zone) {
    return date::floor<date::days>(zone.to_local(instant));
}

// Runs of consecutive numbers in a sorted list: {1,2,3,5} -> {{1,3},{5,5}}.
std::vector<std::pair<int, int>> consecutiveRuns(const std::vector<int>& sorted) {
    std::vector<std::pair<int, int>> runs;
    for (int n : sorted) {
        if (!runs.empty() && runs.back().second + 1 == n) {
            runs.back().second = n;
        } else {
            runs.push_back({n, n});
        }
    }
    return runs;
}

template <typename Word>
std::string renderRuns(const std::vector<int>& sorted, Word word) {
    std::vector<std::string> items;
    for (auto [first, last] : consecutiveRuns(sorted)) {
        if (first == last) {
            items.emplace_back(word(first));
        } else {
            items.push_back(fmt::format("{} through {}", word(first), word(last)));
        }
    }
    return joinedList(items);
}

}  // namespace

std::optional<ModelDate> Schedule::nextFireDate(SystemTime after, const date::time_zone* zone) const {
    if (!runOnSchedule || daysOfWeek.empty()) return std::nullopt;
    if (zone == nullptr || !timeInRange(timeOfDay)) return std::nullopt;

    // The first candidate: the next instant strictly after the reference whose local time matches.
    const auto referenceSecond = date::floor<seconds>(after);
    date::local_days day = localDay(referenceSecond, *zone) - date::days{1};
    date::sys_seconds candidate = fireInstant(day, timeOfDay, *zone);
    for (int i = 0; i < 4 && !(SystemTime(candidate) > after); ++i) {
        day += date::days{1};
        candidate = fireInstant(day, timeOfDay, *zone);
    }
    if (!(SystemTime(candidate) > after)) return std::nullopt;

    // One candidate per calendar day from there.
    for (int examined = 0; examined < 366; ++examined) {
        const date::year_month_day ymd{localDay(candidate, *zone)};
        const int weekday = static_cast<int>(date::weekday{ymd}.c_encoding()) + 1;
        const int ordinal = static_cast<int>((static_cast<unsigned>(ymd.day()) - 1) / 7 + 1);
        if (daysOfWeek.count(static_cast<DayOfWeek>(weekday)) != 0) {
            if (weeksOfMonth.empty()) return candidate;
            if (ordinal >= 1 && ordinal <= 5 && weeksOfMonth.count(static_cast<WeekOfMonth>(ordinal)) != 0) {
                return candidate;
            }
        }
        day += date::days{1};
        candidate = fireInstant(day, timeOfDay, *zone);
    }
    return std::nullopt;
}

std::string_view ordinalWord(Schedule::WeekOfMonth week) {
    static constexpr std::array<std::string_view, 5> words{"First", "Second", "Third", "Fourth", "Fifth"};
    int n = static_cast<int>(week);
    return n >= 1 && n <= 5 ? words[static_cast<std::size_t>(n - 1)] : std::string_view{};
}

std::string_view dayName(Schedule::DayOfWeek day) {
    static constexpr std::array<std::string_view, 7> names{"Sunday",   "Monday", "Tuesday", "Wednesday",
                                                           "Thursday", "Friday", "Saturday"};
    int n = static_cast<int>(day);
    return n >= 1 && n <= 7 ? names[static_cast<std::size_t>(n - 1)] : std::string_view{};
}

std::string timeText(const Schedule::TimeOfDay& time) {
    std::int64_t hour12 = time.hour == 0 ? 12 : (time.hour > 12 ? time.hour - 12 : time.hour);
    const char* suffix = time.hour < 12 ? "AM" : "PM";
    return fmt::format("{}:{:02} {}", hour12, time.minute, suffix);
}

std::string joinedList(const std::vector<std::string>& items) {
    switch (items.size()) {
        case 0: return {};
        case 1: return items[0];
        case 2: return items[0] + " and " + items[1];
        default: break;
    }
    std::string out;
    for (std::size_t i = 0; i + 1 < items.size(); ++i) {
        if (i > 0) out += ", ";
        out += items[i];
    }
    return out + ", and " + items.back();
}

std::string Schedule::summary() const {
    std::string weeksPart;
    if (weeksOfMonth.empty() || weeksOfMonth.size() == 5) {
        weeksPart = "Every week";
    } else {
        std::vector<int> weeks;
        for (auto w : weeksOfMonth) weeks.push_back(static_cast<int>(w));
        weeksPart = renderRuns(weeks, [](int n) { return ordinalWord(static_cast<WeekOfMonth>(n)); }) +
                    " weeks of each month";
    }
    std::vector<int> days;
    for (auto d : daysOfWeek) days.push_back(static_cast<int>(d));
    std::string daysPart = renderRuns(days, [](int n) { return dayName(static_cast<DayOfWeek>(n)); });
    return weeksPart + ", " + daysPart + " at " + timeText(timeOfDay);
}

tl::expected<Schedule::WeekOfMonth, ModelDecodeError> JsonCoder<Schedule::WeekOfMonth>::decode(
    const Json& json, const std::string& path) {
    auto n = JsonCoder<std::int64_t>::decode(json, path);
    if (!n) return tl::unexpected(std::move(n.error()));
    if (*n < 1 || *n > 5) return tl::unexpected(ModelDecodeError::unknownCase(path, std::to_string(*n)));
    return static_cast<Schedule::WeekOfMonth>(*n);
}

tl::expected<Schedule::DayOfWeek, ModelDecodeError> JsonCoder<Schedule::DayOfWeek>::decode(const Json& json,
                                                                                           const std::string& path) {
    auto n = JsonCoder<std::int64_t>::decode(json, path);
    if (!n) return tl::unexpected(std::move(n.error()));
    if (*n < 1 || *n > 7) return tl::unexpected(ModelDecodeError::unknownCase(path, std::to_string(*n)));
    return static_cast<Schedule::DayOfWeek>(*n);
}

Json JsonCoder<Schedule::TimeOfDay>::encode(const Schedule::TimeOfDay& value) {
    return Json{{"hour", value.hour}, {"minute", value.minute}};
}

tl::expected<Schedule::TimeOfDay, ModelDecodeError> JsonCoder<Schedule::TimeOfDay>::decode(const Json& json,
                                                                                           const std::string& path) {
    JsonObjectReader r(json, path);
    Schedule::TimeOfDay time{r.required<std::int64_t>("hour"), r.required<std::int64_t>("minute")};
    if (!r.ok()) return tl::unexpected(r.error());
    if (time.hour < 0 || time.hour > 23) {
        return tl::unexpected(ModelDecodeError::invalidValue(joinCodingPath(path, "hour"),
                                                             fmt::format("hour {} is outside 0–23", time.hour)));
    }
    if (time.minute < 0 || time.minute > 59) {
        return tl::unexpected(ModelDecodeError::invalidValue(joinCodingPath(path, "minute"),
                                                             fmt::format("minute {} is outside 0–59", time.minute)));
    }
    return time;
}

Json JsonCoder<Schedule>::encode(const Schedule& value) {
    return Json{{"weeksOfMonth", toJson(value.weeksOfMonth)},
                {"daysOfWeek", toJson(value.daysOfWeek)},
                {"timeOfDay", toJson(value.timeOfDay)},
                {"runOnSchedule", value.runOnSchedule},
                {"runOnMount", value.runOnMount}};
}

tl::expected<Schedule, ModelDecodeError> JsonCoder<Schedule>::decode(const Json& json, const std::string& path) {
    JsonObjectReader r(json, path);
    Schedule schedule{
        r.required<std::set<Schedule::WeekOfMonth>>("weeksOfMonth"),
        r.required<std::set<Schedule::DayOfWeek>>("daysOfWeek"),
        r.required<Schedule::TimeOfDay>("timeOfDay"),
        r.required<bool>("runOnSchedule"),
        r.required<bool>("runOnMount"),
    };
    if (!r.ok()) return tl::unexpected(r.error());
    return schedule;
}

}  // namespace ql
