#pragma once

#include "QLModel/JsonCoder.h"
#include "QLModel/ModelDate.h"

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace date {
class time_zone;
}

namespace ql {

// When a job runs by itself: on the qualifying weekdays of the qualifying weeks of each month, at
// a local wall-clock time, and/or whenever its destination is connected.
//
// JSON keys are the field names; the sets are arrays of the members' numbers (order carries no
// meaning). A week number outside 1–5, a weekday outside 1–7, an hour outside 0–23 or a minute
// outside 0–59 fails decoding.
struct Schedule {
    // The ordinal of the weekday within its month (the 1st Monday, the 2nd Monday, ...), not a
    // calendar week row.
    enum class WeekOfMonth : int { first = 1, second = 2, third = 3, fourth = 4, fifth = 5 };
    // Gregorian weekday numbering.
    enum class DayOfWeek : int { sunday = 1, monday = 2, tuesday = 3, wednesday = 4, thursday = 5, friday = 6, saturday = 7 };

    struct TimeOfDay {
        std::int64_t hour = 0;    // 0–23
        std::int64_t minute = 0;  // 0–59
        friend bool operator==(const TimeOfDay&, const TimeOfDay&) = default;
    };

    // Which weeks of each month qualify; empty means every week.
    std::set<WeekOfMonth> weeksOfMonth;
    // Which weekdays qualify; empty means the schedule never fires.
    std::set<DayOfWeek> daysOfWeek;
    TimeOfDay timeOfDay;
    // Whether the calendar rule is active at all.
    bool runOnSchedule = false;
    // Whether the job also runs when its destination is connected. The calendar computation
    // ignores it; the scheduler acts on it.
    bool runOnMount = false;

    // The first fire time strictly after `after` in the calendar of `zone`, or none.
    //
    // The first candidate is the next instant after `after` whose local time is
    // timeOfDay:00; then one candidate per calendar day follows (never skipping a day), for at
    // most 366 candidates, until one falls on a qualifying weekday and, when weeks are given, in a
    // qualifying week. A wall-clock time skipped by a daylight-saving jump fires at the first
    // instant after the gap; one that occurs twice fires at its first occurrence.
    std::optional<ModelDate> nextFireDate(SystemTime after, const date::time_zone* zone) const;

    // The sentence of the job list: weeks-part + ", " + days-part + " at " + time-part, e.g.
    // "Every week, Monday through Friday at 9:05 AM",
    // "First through Third and Fifth weeks of each month, Sunday and Saturday at 12:30 AM".
    std::string summary() const;

    friend bool operator==(const Schedule&, const Schedule&) = default;
};

// "First" ... "Fifth".
std::string_view ordinalWord(Schedule::WeekOfMonth week);
// "Sunday" ... "Saturday".
std::string_view dayName(Schedule::DayOfWeek day);
// "9:05 AM", "12:00 PM", "12:30 AM".
std::string timeText(const Schedule::TimeOfDay& time);
// The list rule: "", "A", "A and B", "A, B, and C".
std::string joinedList(const std::vector<std::string>& items);

template <>
struct JsonCoder<Schedule::WeekOfMonth> {
    static Json encode(Schedule::WeekOfMonth value) { return static_cast<int>(value); }
    static tl::expected<Schedule::WeekOfMonth, ModelDecodeError> decode(const Json& json, const std::string& path);
};

template <>
struct JsonCoder<Schedule::DayOfWeek> {
    static Json encode(Schedule::DayOfWeek value) { return static_cast<int>(value); }
    static tl::expected<Schedule::DayOfWeek, ModelDecodeError> decode(const Json& json, const std::string& path);
};

template <>
struct JsonCoder<Schedule::TimeOfDay> {
    static Json encode(const Schedule::TimeOfDay& value);
    static tl::expected<Schedule::TimeOfDay, ModelDecodeError> decode(const Json& json, const std::string& path);
};

template <>
struct JsonCoder<Schedule> {
    static Json encode(const Schedule& value);
    static tl::expected<Schedule, ModelDecodeError> decode(const Json& json, const std::string& path);
};

}  // namespace ql
