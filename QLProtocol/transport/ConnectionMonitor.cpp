#include "QLProtocol/transport/ConnectionMonitor.h"

namespace ql {

bool ConnectionMonitor::beginWait(Waiter waiter) {
    std::lock_guard lock(mutex_);
    if (waiter_ != Waiter::none) return false;
    waiter_ = waiter;
    return true;
}

void ConnectionMonitor::endWait() {
    std::lock_guard lock(mutex_);
    waiter_ = Waiter::none;
}

ConnectionMonitor::Waiter ConnectionMonitor::waiter() const {
    std::lock_guard lock(mutex_);
    return waiter_;
}

void ConnectionMonitor::markReady() {
    std::lock_guard lock(mutex_);
    ready_ = true;
}

bool ConnectionMonitor::isReady() const {
    std::lock_guard lock(mutex_);
    return ready_;
}

void ConnectionMonitor::fail(Failure failure) {
    std::lock_guard lock(mutex_);
    if (!failure_) failure_ = std::move(failure);
}

std::optional<ConnectionMonitor::Failure> ConnectionMonitor::terminalError() const {
    std::lock_guard lock(mutex_);
    return failure_;
}

}  // namespace ql
