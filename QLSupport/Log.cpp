#include "QLSupport/Log.h"

#include <unistd.h>

#include <cerrno>
#include <memory>
#include <mutex>

namespace ql {
namespace {

std::mutex& sinkMutex() {
    static std::mutex m;
    return m;
}

Log::Sink& currentSink() {
    static Log::Sink sink;
    return sink;
}

void writeToStandardError(std::string_view line) {
    std::string whole(line);
    whole.push_back('\n');
    const char* p = whole.data();
    size_t left = whole.size();
    while (left > 0) {
        ssize_t n = ::write(STDERR_FILENO, p, left);
        if (n < 0) {
            if (errno == EINTR) continue;
            return;
        }
        p += n;
        left -= static_cast<size_t>(n);
    }
}

void emit(std::string_view text) {
    Log::Sink sink;
    {
        std::lock_guard lock(sinkMutex());
        sink = currentSink();
    }
    if (sink) {
        sink(text);
    } else {
        writeToStandardError(text);
    }
}

}  // namespace

void Log::line(std::string_view tag, std::string_view text) {
    std::string whole;
    whole.reserve(tag.size() + text.size() + 3);
    whole.push_back('[');
    whole.append(tag);
    whole.append("] ");
    whole.append(text);
    emit(whole);
}

void Log::raw(std::string_view text) { emit(text); }

Log::Sink Log::setSink(Sink sink) {
    std::lock_guard lock(sinkMutex());
    Sink previous = std::move(currentSink());
    currentSink() = std::move(sink);
    return previous;
}

struct LogCapture::State {
    mutable std::mutex mutex;
    std::vector<std::string> lines;
    bool echo = false;
};

LogCapture::LogCapture(bool echo) : state_(std::make_shared<State>()) {
    state_->echo = echo;
    previous_ = Log::setSink([state = state_](std::string_view line) {
        {
            std::lock_guard lock(state->mutex);
            state->lines.emplace_back(line);
        }
        if (state->echo) writeToStandardError(line);
    });
}

LogCapture::~LogCapture() { Log::setSink(std::move(previous_)); }

std::vector<std::string> LogCapture::lines() const {
    std::lock_guard lock(state_->mutex);
    return state_->lines;
}

bool LogCapture::contains(std::string_view needle) const {
    std::lock_guard lock(state_->mutex);
    for (const auto& l : state_->lines) {
        if (l.find(needle) != std::string::npos) return true;
    }
    return false;
}

void LogCapture::clear() {
    std::lock_guard lock(state_->mutex);
    state_->lines.clear();
}

}  // namespace ql
