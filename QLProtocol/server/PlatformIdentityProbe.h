#pragma once

#include <optional>
#include <string>

namespace ql {

// What the operating system says about the machine's identity.
class PlatformIdentityProbe {
public:
    virtual ~PlatformIdentityProbe() = default;
    // The hardware's own UUID (macOS: the platform expert's IOPlatformUUID; Linux: the DMI
    // product UUID, readable by root only), as upper-case UUID text; nullopt when unreadable.
    virtual std::optional<std::string> platformUUID() const = 0;
    // An identity the installed system already keeps for this machine (Linux: /etc/machine-id,
    // as UUID text), used as the seed of the server's own machine id; nullopt when there is none.
    virtual std::optional<std::string> systemMachineID() const = 0;
};

class LivePlatformIdentityProbe final : public PlatformIdentityProbe {
public:
    std::optional<std::string> platformUUID() const override;
    std::optional<std::string> systemMachineID() const override;
};

class FakePlatformIdentityProbe final : public PlatformIdentityProbe {
public:
    std::optional<std::string> platformUUIDValue;
    std::optional<std::string> systemMachineIDValue;

    std::optional<std::string> platformUUID() const override { return platformUUIDValue; }
    std::optional<std::string> systemMachineID() const override { return systemMachineIDValue; }
};

// Reads the Linux identity files; split out so that their parsing is testable on any machine.
struct LinuxIdentityFiles {
    // "/etc/machine-id" holds 32 hexadecimal digits; the result is their UUID text.
    static std::optional<std::string> machineIDFromText(std::string_view text);
    // "/sys/class/dmi/id/product_uuid" holds UUID text; placeholder values that firmware writes
    // when it has none (all zeros, all F) count as absent.
    static std::optional<std::string> productUUIDFromText(std::string_view text);
};

}  // namespace ql
