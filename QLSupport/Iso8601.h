#pragma once

#include <tl/expected.hpp>

#include <chrono>
#include <string>
#include <string_view>

namespace ql {

using SystemTime = std::chrono::system_clock::time_point;

// ISO 8601 instants as the model's JSON writes them: UTC, whole seconds,
// "2026-11-21T04:39:00Z". Parsing is tolerant: fractional seconds (kept to the nanosecond)
// and numeric offsets ("+01:00", "-0500") are accepted as well as "Z".
struct Iso8601 {
    static std::string format(SystemTime instant);
    static tl::expected<SystemTime, std::string> parse(std::string_view text);
};

// Nanoseconds since the Unix epoch, the wire form of instants.
std::int64_t toUnixNanos(SystemTime instant);
SystemTime fromUnixNanos(std::int64_t nanos);

}  // namespace ql
