#pragma once

#include "QLSupport/Json.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>

namespace ql {

// Writes the engine's events as JSON lines to the progress descriptor. Every line goes out in
// one write (looping only over partial writes), under one lock, so lines never interleave.
// Each event gets "ts" (Unix time in milliseconds) and "elapsed_s" (seconds since the writer
// was made, which is when the engine started). Once the descriptor fails (the reader went away)
// the writer stops trying and the engine carries on.
class EventWriter {
public:
    explicit EventWriter(int fd);

    // Writes a non-terminal event. Returns false when the descriptor is unusable.
    bool emit(Json event);

    // Writes a terminal event (summary or failure) unless one was written already; returns
    // whether this call wrote it. Exactly one terminal ever reaches the stream.
    bool emitTerminal(Json event);

    // Writes `terminated` once; later calls do nothing.
    bool emitTerminated(Json event);

    bool terminalWritten() const { return terminalWritten_.load(); }
    bool broken() const { return broken_.load(); }
    double elapsedSeconds() const;

private:
    enum class Slot { ordinary, terminated, terminal };
    bool writeLine(Json& event, Slot slot);

    int fd_;
    std::chrono::steady_clock::time_point start_;
    std::mutex mutex_;
    std::atomic<bool> broken_{false};
    std::atomic<bool> terminalWritten_{false};
    std::atomic<bool> terminatedWritten_{false};
};

}  // namespace ql
