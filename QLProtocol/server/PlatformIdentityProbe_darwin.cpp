#include "QLProtocol/server/PlatformIdentityProbe.h"

#include "QLSupport/Uuid.h"

#include <CoreFoundation/CoreFoundation.h>
#include <IOKit/IOKitLib.h>

namespace ql {

std::optional<std::string> LivePlatformIdentityProbe::platformUUID() const {
    io_service_t expert = IOServiceGetMatchingService(kIOMainPortDefault, IOServiceMatching("IOPlatformExpertDevice"));
    if (expert == IO_OBJECT_NULL) return std::nullopt;
    CFTypeRef value = IORegistryEntryCreateCFProperty(expert, CFSTR("IOPlatformUUID"), kCFAllocatorDefault, 0);
    IOObjectRelease(expert);
    if (value == nullptr) return std::nullopt;
    std::optional<std::string> result;
    if (CFGetTypeID(value) == CFStringGetTypeID()) {
        char buffer[64] = {};
        if (CFStringGetCString(static_cast<CFStringRef>(value), buffer, sizeof buffer, kCFStringEncodingUTF8)) {
            if (auto uuid = Uuid::parse(buffer)) result = uuid->text();
        }
    }
    CFRelease(value);
    return result;
}

// macOS keeps no separate installation identity; the server mints its own.
std::optional<std::string> LivePlatformIdentityProbe::systemMachineID() const { return std::nullopt; }

}  // namespace ql
