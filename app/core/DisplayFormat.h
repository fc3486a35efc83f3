#pragma once

#include <cstdint>
#include <string>

namespace ql {

// The short texts a client shows for sizes, rates and durations.
struct DisplayFormat {
    // Decimal units, three significant figures: "0 bytes", "1 byte", "999 bytes", "1.2 KB",
    // "12.3 MB", "123 GB", "1.5 TB".
    static std::string bytes(std::uint64_t count);
    // "12.3 MB/s"; "—" for 0 (not yet measured).
    static std::string rate(std::uint64_t bytesPerSecond);
    // "0.4 s", "12 s", "4m 05s", "1h 02m".
    static std::string duration(double seconds);
    // The remaining-time text of a running copy, from seconds left (negative: unknown):
    // empty; "Less than a minute remaining"; "4m 5s remaining" below five minutes; otherwise
    // "About 25 minutes remaining" (to the nearest five minutes) or "About 2h remaining".
    static std::string etaText(std::int64_t seconds);
    // "1 file", "3 files" (and likewise for any noun with a plain plural).
    static std::string count(std::uint64_t n, const std::string& singular, const std::string& plural);
};

}  // namespace ql
