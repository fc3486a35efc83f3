#include "app/core/DisplayFormat.h"

#include <fmt/format.h>

#include <cmath>

namespace ql {

std::string DisplayFormat::bytes(std::uint64_t count) {
    if (count == 1) return "1 byte";
    if (count < 1000) return fmt::format("{} bytes", count);
    static const char* const units[] = {"KB", "MB", "GB", "TB", "PB", "EB"};
    double value = static_cast<double>(count);
    int unit = -1;
    while (value >= 999.95 && unit < 5) {
        value /= 1000.0;
        ++unit;
    }
    if (value >= 99.95) return fmt::format("{:.0f} {}", value, units[unit]);
    return fmt::format("{:.1f} {}", value, units[unit]);
}

std::string DisplayFormat::rate(std::uint64_t bytesPerSecond) {
    if (bytesPerSecond == 0) return "—";
    return bytes(bytesPerSecond) + "/s";
}

std::string DisplayFormat::duration(double seconds) {
    if (!(seconds >= 0)) seconds = 0;
    if (seconds < 10) return fmt::format("{:.1f} s", seconds);
    auto whole = static_cast<std::int64_t>(std::llround(seconds));
    if (whole < 60) return fmt::format("{} s", whole);
    if (whole < 3600) return fmt::format("{}m {:02}s", whole / 60, whole % 60);
    return fmt::format("{}h {:02}m", whole / 3600, (whole % 3600) / 60);
}

std::string DisplayFormat::etaText(std::int64_t s) {
    if (s < 0) return {};
    if (s < 60) return "Less than a minute remaining";
    if (s < 300) return fmt::format("{}m {}s remaining", s / 60, s % 60);
    // Minutes to the nearest five, halves away from zero.
    const auto m = static_cast<std::int64_t>(std::llround(static_cast<double>(s) / 300.0)) * 5;
    if (m < 60) return fmt::format("About {} minutes remaining", m);
    return fmt::format("About {}h remaining", std::llround(static_cast<double>(m) / 60.0));
}

std::string DisplayFormat::count(std::uint64_t n, const std::string& singular, const std::string& plural) {
    return fmt::format("{} {}", n, n == 1 ? singular : plural);
}

}  // namespace ql
