#pragma once

#include "QLModel/HardwareSerialProbe.h"

#include <cstdint>
#include <map>
#include <mutex>

namespace ql {

// A serial probe that fails before it succeeds: the first `failuresBeforeSuccess` calls answer
// "no serial", later calls answer from `serials`. Shared between tasks, so its counter is
// guarded.
class FlakyHardwareSerialProbe final : public HardwareSerialProbe {
public:
    FlakyHardwareSerialProbe(std::map<std::string, HardwareSerial> serials, std::int64_t failuresBeforeSuccess)
        : serials_(std::move(serials)), failuresBeforeSuccess_(failuresBeforeSuccess) {}

    std::optional<HardwareSerial> serial(const std::string& device) override;

    // How many times `serial` has been called.
    std::int64_t callCount() const;
    std::int64_t failuresBeforeSuccess() const;

private:
    mutable std::mutex lock_;
    std::map<std::string, HardwareSerial> serials_;
    std::int64_t failuresBeforeSuccess_ = 0;
    std::int64_t callCount_ = 0;  // guarded by lock_
};

}  // namespace ql
