#include "QLModel/FlakyHardwareSerialProbe.h"

namespace ql {

std::optional<HardwareSerial> FlakyHardwareSerialProbe::serial(const std::string& device) {
    std::lock_guard guard(lock_);
    ++callCount_;
    if (callCount_ <= failuresBeforeSuccess_) return std::nullopt;
    auto found = serials_.find(device);
    if (found == serials_.end()) return std::nullopt;
    return found->second;
}

std::int64_t FlakyHardwareSerialProbe::callCount() const {
    std::lock_guard guard(lock_);
    return callCount_;
}

std::int64_t FlakyHardwareSerialProbe::failuresBeforeSuccess() const { return failuresBeforeSuccess_; }

}  // namespace ql
