#include "qlcopy/StopControl.h"

namespace ql {

void StopControl::requestSignalStop(int signalNumber) {
    int expected = 0;
    signal_.compare_exchange_strong(expected, signalNumber);
    stopping_.store(true);
}

bool StopControl::fail(EngineFailure failure) {
    std::lock_guard lock(mutex_);
    if (failure_) return false;
    failure_ = std::move(failure);
    stopping_.store(true);
    return true;
}

std::optional<EngineFailure> StopControl::failure() const {
    std::lock_guard lock(mutex_);
    return failure_;
}

}  // namespace ql
