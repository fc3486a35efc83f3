#pragma once

#include "app/core/Tile.h"

#include <string>
#include <vector>

namespace ql {

// A job's schedule in words: "every weeknight at 11:00 PM", "every 1st and 3rd Monday at
// 9:00 AM", "on Monday, Wednesday, and Friday at 6:30 PM". Days are numbered 0 Sunday … 6
// Saturday, weeks of the month 1 … 5; times read in the short English style ("11:00 PM").
struct ScheduleGrammar {
    // The phrase without "Runs".
    static std::string phrase(const Tile::Schedule& schedule);
    // "", "A", "A and B", "A, B, and C".
    static std::string joinList(const std::vector<std::string>& items);
    // "1st" … "5th", "?" otherwise.
    static std::string ordinal(int week);
    // "Sunday" … "Saturday", "?" otherwise.
    static std::string dayName(int day);
    // "11:00 PM", "12:05 AM".
    static std::string timeOfDay(int minuteOfDay);
};

}  // namespace ql
