#include "qlcopy/EventWriter.h"

#include "QLSupport/Log.h"

#include <unistd.h>

#include <cerrno>

namespace ql {

EventWriter::EventWriter(int fd) : fd_(fd), start_(std::chrono::steady_clock::now()) {}

double EventWriter::elapsedSeconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

bool EventWriter::writeLine(Json& event, Slot slot) {
    auto now = std::chrono::system_clock::now();
    event["ts"] = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count();
    if (!event.contains("elapsed_s")) event["elapsed_s"] = elapsedSeconds();
    std::string line = dumpJson(event);
    line.push_back('\n');

    std::lock_guard lock(mutex_);
    // Nothing follows the terminal event; `terminated` comes at most once, before it.
    if (terminalWritten_.load()) return false;
    if (slot == Slot::terminated) {
        if (terminatedWritten_.load()) return false;
        terminatedWritten_.store(true);
    }
    if (slot == Slot::terminal) terminalWritten_.store(true);
    if (broken_.load()) return slot == Slot::terminal;

    const char* p = line.data();
    size_t left = line.size();
    while (left > 0) {
        ssize_t n = ::write(fd_, p, left);
        if (n < 0) {
            if (errno == EINTR) continue;
            int e = errno;
            broken_.store(true);
            Log::f("Events", "progress descriptor {} failed (errno {}); events stop here, the copy goes on", fd_, e);
            return slot == Slot::terminal;
        }
        p += n;
        left -= static_cast<size_t>(n);
    }
    return true;
}

bool EventWriter::emit(Json event) { return writeLine(event, Slot::ordinary); }

bool EventWriter::emitTerminal(Json event) { return writeLine(event, Slot::terminal); }

bool EventWriter::emitTerminated(Json event) { return writeLine(event, Slot::terminated); }

}  // namespace ql
