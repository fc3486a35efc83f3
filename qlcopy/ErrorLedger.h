#pragma once

#include "qlcopy/EventWriter.h"
#include "qlcopy/StopControl.h"

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

namespace ql {

// One item that could not be copied, updated or deleted.
struct ItemFailure {
    std::string verb;     // COPIED, UPDATED, DELETED, CREATED, SYMLINKED, LINKED, CLONED
    std::string path;     // absolute path on the side that failed
    std::string syscall;  // the call that failed ("open", "copy_file_range", ...)
    std::string side;     // "src" or "dst"
    int error = 0;        // errno
    bool ignored = false; // an optional (or retain-on-error) item: counted, but not an error
};

// Counts item errors, remembers the first, and reports each as a `warning` event and a log line
// "<VERB> FAILED <path>: <error text>". Errors that mean the destination as a whole is unusable
// (full, gone, read-only) stop the run with a failure; so does reaching the abort count.
class ErrorLedger {
public:
    struct FirstError {
        std::string path;
        std::string syscall;
        std::string side;
        int error = 0;
        std::int64_t unixNanos = 0;
    };

    ErrorLedger(EventWriter& events, StopControl& stop, std::int64_t abortAfter);

    void record(const ItemFailure& failure);
    // A problem worth a warning that is not an item error (e.g. a folder left alone).
    void warn(const std::string& kind, const std::string& message, const std::string& path = {}, int error = 0);

    int errors() const { return errors_.load(); }
    int ignored() const { return ignored_.load(); }
    std::optional<FirstError> first() const;

    // Errors on the destination that make every further write pointless.
    static bool isFatalOnDestination(int error);
    static std::string lineFor(const ItemFailure& failure);

private:
    EventWriter& events_;
    StopControl& stop_;
    std::int64_t abortAfter_;
    std::atomic<int> errors_{0};
    std::atomic<int> ignored_{0};
    mutable std::mutex mutex_;
    std::optional<FirstError> first_;
};

}  // namespace ql
