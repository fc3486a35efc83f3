#pragma once

#include "app/core/RunTracker.h"

#include <chrono>
#include <ostream>
#include <string>
#include <vector>

namespace ql {

// Shows a running copy on the command line.
//
// On a terminal: a block of a few lines redrawn in place (at most ten times a second): what
// the copy is doing (phase and step, a waiting or pause notice), a progress bar with the
// percentage, rate and time left, the current file, and a stall notice when there is one.
// Otherwise (a pipe, a file, `--plain`): one line per change worth reading — each phase, each
// notice, and the progress at most once a second.
//
// `finish` prints the result and the run's summary.
class ProgressRenderer {
public:
    using Clock = std::chrono::steady_clock;

    struct Options {
        bool terminal = false;
        int width = 80;
        // Shown first: "Copying Documents → backup (Smart Update)".
        std::string title;
        bool dryRun = false;
    };

    ProgressRenderer(std::ostream& out, Options options);

    void begin();
    void update(const RunTracker& tracker, RunTracker::Change change, Clock::time_point now = Clock::now());
    // A line printed above the live block ("Cancelling…").
    void note(const std::string& text);
    // Clears the live block and prints the outcome and summary.
    void finish(const RunTracker& tracker);

    // "[##########----------]" with `width` cells inside the brackets.
    static std::string bar(double fraction, int width);
    // The summary lines of a finished run (no trailing newline).
    static std::vector<std::string> summary(const RunTracker& tracker, bool dryRun);
    // What the run is doing now, in one line: the active step or phase label, a waiting
    // notice, "Paused", "Waiting in queue".
    static std::string activity(const RunTracker& tracker);
    // "48% · 12.3 MB/s · About 5 minutes remaining" (parts that are unknown are left out).
    static std::string figures(const Tile::RunningState& state);
    // The end of `text` that fits in `width` columns, with a leading "…" when cut.
    static std::string fitTail(const std::string& text, int width);
    // `text` cut at the end with "…" to fit `width` columns.
    static std::string fitHead(const std::string& text, int width);

private:
    void redraw(const std::vector<std::string>& lines);
    std::vector<std::string> block(const RunTracker& tracker) const;

    std::ostream& out_;
    Options options_;
    int drawnLines_ = 0;
    Clock::time_point lastDraw_{};
    Clock::time_point lastProgressLine_{};
    std::string lastActivity_;
    std::string lastStall_;
    int lastPercent_ = -1;
};

}  // namespace ql
