#pragma once

#include "QLModel/DiskImageBackingProbe.h"

#include <string>

namespace ql {

// The live backing probe. On macOS the image path recorded in the I/O registry above the
// device; on Linux the backing file of the loop device the device belongs to (a partition is
// backed by its whole loop device's file), with the block device holding that file.
class LiveDiskImageBackingProbe final : public DiskImageBackingProbe {
public:
    struct Options {
        // Linux only.
        std::string sysClassBlock = "/sys/class/block";
        std::string sysDevBlock = "/sys/dev/block";
    };

    LiveDiskImageBackingProbe() = default;
    explicit LiveDiskImageBackingProbe(Options options) : options_(std::move(options)) {}

    std::optional<DiskImageBacking> backing(const std::string& device) override;

private:
    Options options_;
};

}  // namespace ql
