#pragma once

#include "QLModel/HardwareSerialProbe.h"

#include <optional>
#include <string>
#include <string_view>

namespace ql {

// What the platform's device registry answered when asked for a device's serial number.
struct SerialRegistryAnswer {
    enum class Kind {
        noMatchingDictionary,  // the device name can't be turned into a registry query
        noService,             // no registry entry for the device
        neitherProperty,       // neither "Serial Number" nor "USB Serial Number" anywhere up the tree
        found,                 // `property` was found; `value` is absent when it is not a string
    };
    Kind kind = Kind::noService;
    std::string property;
    std::optional<std::string> value;

    static SerialRegistryAnswer noMatchingDictionary() { return {Kind::noMatchingDictionary, {}, {}}; }
    static SerialRegistryAnswer noService() { return {Kind::noService, {}, {}}; }
    static SerialRegistryAnswer neitherProperty() { return {Kind::neitherProperty, {}, {}}; }
    static SerialRegistryAnswer found(std::string property, std::optional<std::string> value) {
        return {Kind::found, std::move(property), std::move(value)};
    }
};

// The live serial probe. The registry lookup is the platform's: on macOS the I/O registry
// service matching the device name, searched with its parents for "Serial Number", then "USB
// Serial Number"; on Linux the kernel's device tree, where the disk's own serial (its "serial"
// attribute, the SCSI unit serial page, or the udev database when there is one) stands for
// "Serial Number" and the serial of a USB device above the disk for "USB Serial Number".
//
// Deciding on the answer is portable: every "no serial" outcome writes one "[serialProbe] …"
// line to standard error.
class LiveHardwareSerialProbe final : public HardwareSerialProbe {
public:
    struct Options {
        // Linux only: where the kernel's device tree and the udev database live.
        std::string sysRoot = "/sys";
        std::string udevData = "/run/udev/data";
    };

    LiveHardwareSerialProbe() = default;
    explicit LiveHardwareSerialProbe(Options options) : options_(std::move(options)) {}

    std::optional<HardwareSerial> serial(const std::string& device) override;

    // The platform's registry lookup for one device name.
    SerialRegistryAnswer lookUp(const std::string& device) const;

    // Turns an answer into a serial, or into "no serial" with its line.
    static std::optional<HardwareSerial> decide(const std::string& device, const SerialRegistryAnswer& answer);
    // Trims surrounding white space (and NUL padding); empty means unusable.
    static std::string normalize(std::string_view raw);

private:
    Options options_;
};

}  // namespace ql
