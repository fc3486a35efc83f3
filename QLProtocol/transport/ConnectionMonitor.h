#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <system_error>

namespace ql {

// The per-connection bookkeeping of a framed socket: who is waiting on it (a caller waiting for
// the connection to become ready, or one waiting for the next frame), the terminal error once
// the connection failed, and whether it ever became ready. Guarded by a lock because it is read
// from whichever thread completes the socket's operations.
//
// A connection is serial: only one receive may be outstanding, so a second waiter is refused.
class ConnectionMonitor {
public:
    enum class Waiter { none, ready, frame };
    struct Failure {
        std::error_code code;
        std::string detail;
    };

    // Registers a waiter; false when another waiter is already registered.
    bool beginWait(Waiter waiter);
    void endWait();
    Waiter waiter() const;

    void markReady();
    bool isReady() const;

    // Records the first terminal error; later ones are ignored.
    void fail(Failure failure);
    std::optional<Failure> terminalError() const;

private:
    mutable std::mutex mutex_;
    Waiter waiter_ = Waiter::none;
    std::optional<Failure> failure_;
    bool ready_ = false;
};

}  // namespace ql
