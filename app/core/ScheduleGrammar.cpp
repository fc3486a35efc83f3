#include "app/core/ScheduleGrammar.h"

#include <fmt/format.h>

namespace ql {

std::string ScheduleGrammar::joinList(const std::vector<std::string>& items) {
    if (items.empty()) return {};
    if (items.size() == 1) return items[0];
    if (items.size() == 2) return items[0] + " and " + items[1];
    std::string out;
    for (std::size_t i = 0; i + 1 < items.size(); ++i) out += items[i] + ", ";
    return out + "and " + items.back();
}

std::string ScheduleGrammar::ordinal(int week) {
    static const char* const names[] = {"1st", "2nd", "3rd", "4th", "5th"};
    if (week < 1 || week > 5) return "?";
    return names[week - 1];
}

std::string ScheduleGrammar::dayName(int day) {
    static const char* const names[] = {"Sunday", "Monday", "Tuesday", "Wednesday", "Thursday", "Friday", "Saturday"};
    if (day < 0 || day > 6) return "?";
    return names[day];
}

std::string ScheduleGrammar::timeOfDay(int minuteOfDay) {
    const int hour = ((minuteOfDay / 60) % 24 + 24) % 24;
    const int minute = ((minuteOfDay % 60) + 60) % 60;
    const int hour12 = hour == 0 ? 12 : hour > 12 ? hour - 12 : hour;
    return fmt::format("{}:{:02} {}", hour12, minute, hour < 12 ? "AM" : "PM");
}

std::string ScheduleGrammar::phrase(const Tile::Schedule& schedule) {
    const auto& days = schedule.days;
    const int hour = schedule.minuteOfDay / 60;
    std::vector<std::string> dayNames;
    for (int d : days) dayNames.push_back(dayName(d));

    const bool allWeeks = schedule.weeks.empty() || schedule.weeks == std::set<int>{1, 2, 3, 4, 5};
    std::string dayPart;
    if (days.empty()) {
        dayPart = "on no days";
    } else if (!allWeeks) {
        std::vector<std::string> ordinals;
        for (int w : schedule.weeks) ordinals.push_back(ordinal(w));
        if (days.size() == 1) {
            dayPart = "every " + joinList(ordinals) + " " + dayNames[0];
        } else {
            dayPart = "on the " + joinList(ordinals) + " " + joinList(dayNames);
        }
    } else if (days == std::set<int>{0, 1, 2, 3, 4, 5, 6}) {
        dayPart = "every day";
    } else if (days == std::set<int>{1, 2, 3, 4, 5}) {
        dayPart = hour >= 6 && hour <= 17 ? "every weekday" : "every weeknight";
    } else if (days == std::set<int>{0, 6}) {
        dayPart = "every weekend";
    } else if (days.size() == 1) {
        dayPart = "every " + dayNames[0];
    } else {
        dayPart = "on " + joinList(dayNames);
    }
    return dayPart + " at " + timeOfDay(schedule.minuteOfDay);
}

}  // namespace ql
