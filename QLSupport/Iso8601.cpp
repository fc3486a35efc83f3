#include "QLSupport/Iso8601.h"

#include <date/date.h>
#include <fmt/format.h>

#include <cctype>

namespace ql {
namespace {

bool readDigits(std::string_view text, std::size_t& pos, std::size_t count, int& out) {
    if (pos + count > text.size()) return false;
    int value = 0;
    for (std::size_t i = 0; i < count; ++i) {
        char c = text[pos + i];
        if (!std::isdigit(static_cast<unsigned char>(c))) return false;
        value = value * 10 + (c - '0');
    }
    pos += count;
    out = value;
    return true;
}

bool expect(std::string_view text, std::size_t& pos, char c) {
    if (pos < text.size() && text[pos] == c) {
        ++pos;
        return true;
    }
    return false;
}

}  // namespace

std::string Iso8601::format(SystemTime instant) {
    auto seconds = date::floor<std::chrono::seconds>(instant);
    return date::format("%Y-%m-%dT%H:%M:%SZ", seconds);
}

tl::expected<SystemTime, std::string> Iso8601::parse(std::string_view text) {
    auto fail = [&] { return tl::unexpected(fmt::format("not an ISO 8601 date: \"{}\"", text)); };
    std::size_t pos = 0;
    int year, month, day, hour, minute, second;
    if (!readDigits(text, pos, 4, year) || !expect(text, pos, '-') || !readDigits(text, pos, 2, month) ||
        !expect(text, pos, '-') || !readDigits(text, pos, 2, day)) {
        return fail();
    }
    if (!(expect(text, pos, 'T') || expect(text, pos, 't') || expect(text, pos, ' '))) return fail();
    if (!readDigits(text, pos, 2, hour) || !expect(text, pos, ':') || !readDigits(text, pos, 2, minute) ||
        !expect(text, pos, ':') || !readDigits(text, pos, 2, second)) {
        return fail();
    }
    std::int64_t nanos = 0;
    if (expect(text, pos, '.') || expect(text, pos, ',')) {
        std::size_t digits = 0;
        while (pos < text.size() && std::isdigit(static_cast<unsigned char>(text[pos]))) {
            if (digits < 9) nanos = nanos * 10 + (text[pos] - '0');
            ++digits;
            ++pos;
        }
        if (digits == 0) return fail();
        for (std::size_t d = digits; d < 9; ++d) nanos *= 10;
    }
    int offsetMinutes = 0;
    if (expect(text, pos, 'Z') || expect(text, pos, 'z')) {
    } else if (pos < text.size() && (text[pos] == '+' || text[pos] == '-')) {
        int sign = text[pos] == '-' ? -1 : 1;
        ++pos;
        int oh, om = 0;
        if (!readDigits(text, pos, 2, oh)) return fail();
        expect(text, pos, ':');
        if (pos < text.size() && !readDigits(text, pos, 2, om)) return fail();
        if (oh > 23 || om > 59) return fail();
        offsetMinutes = sign * (oh * 60 + om);
    } else {
        return fail();
    }
    if (pos != text.size()) return fail();
    if (hour > 23 || minute > 59 || second > 60) return fail();
    date::year_month_day ymd{date::year{year}, date::month{static_cast<unsigned>(month)},
                             date::day{static_cast<unsigned>(day)}};
    if (!ymd.ok()) return fail();
    auto tp = date::sys_days{ymd} + std::chrono::hours{hour} + std::chrono::minutes{minute} +
              std::chrono::seconds{second} - std::chrono::minutes{offsetMinutes};
    return SystemTime{std::chrono::duration_cast<SystemTime::duration>(tp.time_since_epoch() +
                                                                       std::chrono::nanoseconds{nanos})};
}

std::int64_t toUnixNanos(SystemTime instant) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(instant.time_since_epoch()).count();
}

SystemTime fromUnixNanos(std::int64_t nanos) {
    return SystemTime{std::chrono::duration_cast<SystemTime::duration>(std::chrono::nanoseconds{nanos})};
}

}  // namespace ql
