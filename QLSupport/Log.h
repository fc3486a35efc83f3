#pragma once

#include <fmt/format.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace ql {

// Every decision is one log line that begins with a bracketed component tag, e.g.
// "[CopyTileStore] saved 3 jobs". Lines are written whole (one write call) to standard error,
// so lines from concurrent threads never interleave.
class Log {
public:
    using Sink = std::function<void(std::string_view line)>;

    // Writes "[tag] text".
    static void line(std::string_view tag, std::string_view text);

    // Writes the text as it stands, for the few lines whose wording has no bracketed tag
    // ("post-copy: ...").
    static void raw(std::string_view text);

    template <typename... Args>
    static void f(std::string_view tag, fmt::format_string<Args...> format, Args&&... args) {
        line(tag, fmt::format(format, std::forward<Args>(args)...));
    }

    // Replaces the standard-error sink (nullptr restores it); returns the previous sink.
    static Sink setSink(Sink sink);
};

// Collects the log lines written while it lives, for tests. Lines still go to standard error
// when `echo` is true.
class LogCapture {
public:
    explicit LogCapture(bool echo = false);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<std::string> lines() const;
    // True when some line contains `needle`.
    bool contains(std::string_view needle) const;
    void clear();

private:
    struct State;
    std::shared_ptr<State> state_;
    Log::Sink previous_;
};

}  // namespace ql
