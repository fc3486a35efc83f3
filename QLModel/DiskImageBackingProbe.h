#pragma once

#include <optional>
#include <string>

namespace ql {

// The disk-image file behind an image-backed device, and the device that holds that file when
// it is on a local disk.
struct DiskImageBacking {
    std::string imagePath;
    std::optional<std::string> hostDevice;
    friend bool operator==(const DiskImageBacking&, const DiskImageBacking&) = default;
};

// Tells whether a device (a whole disk, a partition or a volume) lives inside an attached disk
// image, and which file backs it. Safe to call from any thread.
class DiskImageBackingProbe {
public:
    virtual ~DiskImageBackingProbe() = default;
    // Absent when the device is not backed by a disk image (or is unknown).
    virtual std::optional<DiskImageBacking> backing(const std::string& device) = 0;
};

}  // namespace ql
