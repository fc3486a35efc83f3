#pragma once

#include "QLProtocol/proto/runs.pb.h"

#include <cstddef>
#include <deque>
#include <optional>
#include <string>
#include <vector>

namespace ql {

// The log of one run as the job's history keeps it: every event of the run in words, each line
// prefixed with the run's bracketed label ("[run 1a2b3c4d] started").
//
// The log is capped at `lineCap` lines. Once full, lines are dropped from the middle: the first
// quarter of the cap stays as the head (how the run began: the queue, the phases, the first
// decisions), the rest holds the newest lines (how it ended), and one line
// "[… N log lines omitted here …]" marks the gap between them.
class RunLog {
public:
    RunLog(std::string label, std::size_t lineCap);

    // Appends one line; the label is added in front.
    void append(const std::string& text);

    // Appends the line for an event, if the event has one (progress samples and preview items
    // do not: the former is kept only as the latest sample, the latter go to the preview store).
    void appendEvent(const ql4::transport::v1::ClonerEvent& event);

    // The words for an event, without the label.
    static std::optional<std::string> describe(const ql4::transport::v1::ClonerEvent& event);

    // Kept lines with the gap line in its place.
    std::vector<std::string> lines() const;
    // `lines()` joined, one per line, each ending with a newline.
    std::string text() const;

    std::size_t droppedLineCount() const { return dropped_; }
    // Where the gap is in `lines()` (the number of head lines), once lines were dropped.
    std::optional<std::size_t> droppedGapIndex() const;
    const std::string& label() const { return label_; }

    static std::string gapLine(std::size_t count);

private:
    std::string label_;
    std::size_t headCap_;
    std::size_t tailCap_;
    std::vector<std::string> head_;
    std::deque<std::string> tail_;
    std::size_t dropped_ = 0;
};

}  // namespace ql
