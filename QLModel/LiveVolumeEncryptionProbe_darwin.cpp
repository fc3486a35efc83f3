#include "QLModel/LiveVolumeEncryptionProbe.h"

#include <CoreFoundation/CoreFoundation.h>
#include <IOKit/IOKitLib.h>

#include <vector>

namespace ql {
namespace {

std::optional<std::string> stringProperty(io_service_t service, CFStringRef key) {
    CFTypeRef value = IORegistryEntryCreateCFProperty(service, key, kCFAllocatorDefault, 0);
    if (!value) return std::nullopt;
    std::optional<std::string> out;
    if (CFGetTypeID(value) == CFStringGetTypeID()) {
        auto text = static_cast<CFStringRef>(value);
        CFIndex length = CFStringGetMaximumSizeForEncoding(CFStringGetLength(text), kCFStringEncodingUTF8) + 1;
        std::vector<char> buffer(static_cast<std::size_t>(length));
        if (CFStringGetCString(text, buffer.data(), length, kCFStringEncodingUTF8)) out = std::string(buffer.data());
    }
    CFRelease(value);
    return out;
}

bool boolProperty(io_service_t service, CFStringRef key) {
    CFTypeRef value = IORegistryEntryCreateCFProperty(service, key, kCFAllocatorDefault, 0);
    if (!value) return false;
    bool out = CFGetTypeID(value) == CFBooleanGetTypeID() && CFBooleanGetValue(static_cast<CFBooleanRef>(value));
    CFRelease(value);
    return out;
}

}  // namespace

std::optional<EncryptionMediaProperties> LiveVolumeEncryptionProbe::lookUp(const std::string& requested) const {
    std::string device = requested.rfind("/dev/", 0) == 0 ? requested.substr(5) : requested;
    CFMutableDictionaryRef matching = IOBSDNameMatching(MACH_PORT_NULL, 0, device.c_str());
    if (!matching) return std::nullopt;
    io_service_t media = IOServiceGetMatchingService(MACH_PORT_NULL, matching);  // consumes `matching`
    if (!media) return std::nullopt;
    EncryptionMediaProperties properties;
    properties.encrypted = boolProperty(media, CFSTR("Encrypted"));
    properties.locked = boolProperty(media, CFSTR("Locked"));
    properties.content = stringProperty(media, CFSTR("Content"));
    properties.uuid = stringProperty(media, CFSTR("UUID"));
    properties.fullName = stringProperty(media, CFSTR("FullName"));
    properties.isAPFSVolume = IOObjectConformsTo(media, "AppleAPFSVolume");
    IOObjectRelease(media);
    return properties;
}

}  // namespace ql
