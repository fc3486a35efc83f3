#include "qlcopy/ErrorLedger.h"

#include "QLSupport/Log.h"
#include "qlcopy/ErrnoText.h"

#include <fmt/format.h>

#include <cerrno>
#include <chrono>

namespace ql {

ErrorLedger::ErrorLedger(EventWriter& events, StopControl& stop, std::int64_t abortAfter)
    : events_(events), stop_(stop), abortAfter_(abortAfter) {}

bool ErrorLedger::isFatalOnDestination(int error) {
    switch (error) {
        case ENOSPC:
        case EDQUOT:
        case EROFS:
        case ENODEV:
        case ENXIO:
        case ENOTCONN:
        case ESTALE:
            return true;
        default:
            return false;
    }
}

std::string ErrorLedger::lineFor(const ItemFailure& f) {
    if (f.ignored) {
        return fmt::format("{} SKIPPED {}: {} (optional item; not counted as an error)", f.verb, f.path,
                           ErrnoText::describe(f.error));
    }
    return fmt::format("{} FAILED {}: {}", f.verb, f.path, ErrnoText::describe(f.error));
}

void ErrorLedger::record(const ItemFailure& f) {
    const std::string line = lineFor(f);
    Log::line("Engine", line);
    Json w = {{"type", "warning"}, {"kind", f.ignored ? "item_error_ignored" : "item_error"}, {"message", line}};
    if (!f.path.empty()) w["path"] = f.path;
    if (f.error != 0) w["errno_value"] = f.error;
    events_.emit(std::move(w));

    if (f.ignored) {
        ++ignored_;
        return;
    }
    int count = ++errors_;
    {
        std::lock_guard lock(mutex_);
        if (!first_) {
            auto now = std::chrono::system_clock::now().time_since_epoch();
            first_ = FirstError{f.path, f.syscall, f.side, f.error,
                                std::chrono::duration_cast<std::chrono::nanoseconds>(now).count()};
        }
    }
    if (f.side == "dst" && isFatalOnDestination(f.error)) {
        EngineFailure failure;
        failure.path = f.path;
        failure.syscall = f.syscall;
        failure.side = f.side;
        failure.error = f.error;
        if (f.error == ENOSPC || f.error == EDQUOT) {
            failure.message = fmt::format("The destination ran out of space while writing {}: {}", f.path,
                                          ErrnoText::describe(f.error));
        } else {
            failure.message = fmt::format("The destination became unusable while writing {}: {}", f.path,
                                          ErrnoText::describe(f.error));
        }
        stop_.fail(std::move(failure));
        return;
    }
    if (abortAfter_ > 0 && count >= abortAfter_) {
        EngineFailure failure;
        failure.message = fmt::format("abort — hard-error count {} reached (last: {})", count, line);
        failure.path = f.path;
        failure.syscall = f.syscall;
        failure.side = f.side;
        failure.error = f.error;
        stop_.fail(std::move(failure));
    }
}

void ErrorLedger::warn(const std::string& kind, const std::string& message, const std::string& path, int error) {
    Log::line("Engine", message);
    Json w = {{"type", "warning"}, {"kind", kind}, {"message", message}};
    if (!path.empty()) w["path"] = path;
    if (error != 0) w["errno_value"] = error;
    events_.emit(std::move(w));
}

std::optional<ErrorLedger::FirstError> ErrorLedger::first() const {
    std::lock_guard lock(mutex_);
    return first_;
}

}  // namespace ql
