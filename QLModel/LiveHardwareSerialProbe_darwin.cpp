#include "QLModel/LiveHardwareSerialProbe.h"

#include <CoreFoundation/CoreFoundation.h>
#include <IOKit/IOKitLib.h>

#include <vector>

namespace ql {
namespace {

std::optional<std::string> stringOf(CFTypeRef value) {
    if (!value || CFGetTypeID(value) != CFStringGetTypeID()) return std::nullopt;
    auto text = static_cast<CFStringRef>(value);
    CFIndex length = CFStringGetMaximumSizeForEncoding(CFStringGetLength(text), kCFStringEncodingUTF8) + 1;
    std::vector<char> buffer(static_cast<std::size_t>(length));
    if (!CFStringGetCString(text, buffer.data(), length, kCFStringEncodingUTF8)) return std::nullopt;
    return std::string(buffer.data());
}

// The property on the service or one of its parents, directly or inside a parent's "Device
// Characteristics" dictionary. The caller releases the result.
CFTypeRef searchProperty(io_service_t service, const char* name) {
    CFStringRef key = CFStringCreateWithCString(kCFAllocatorDefault, name, kCFStringEncodingUTF8);
    const IOOptionBits options = kIORegistryIterateRecursively | kIORegistryIterateParents;
    CFTypeRef value = IORegistryEntrySearchCFProperty(service, kIOServicePlane, key, kCFAllocatorDefault, options);
    if (!value) {
        CFTypeRef characteristics = IORegistryEntrySearchCFProperty(
            service, kIOServicePlane, CFSTR("Device Characteristics"), kCFAllocatorDefault, options);
        if (characteristics && CFGetTypeID(characteristics) == CFDictionaryGetTypeID()) {
            CFTypeRef inner = CFDictionaryGetValue(static_cast<CFDictionaryRef>(characteristics), key);
            if (inner) value = CFRetain(inner);
        }
        if (characteristics) CFRelease(characteristics);
    }
    CFRelease(key);
    return value;
}

}  // namespace

SerialRegistryAnswer LiveHardwareSerialProbe::lookUp(const std::string& requested) const {
    std::string device = requested.rfind("/dev/", 0) == 0 ? requested.substr(5) : requested;
    CFMutableDictionaryRef matching = IOBSDNameMatching(MACH_PORT_NULL, 0, device.c_str());
    if (!matching) return SerialRegistryAnswer::noMatchingDictionary();
    io_service_t service = IOServiceGetMatchingService(MACH_PORT_NULL, matching);  // consumes `matching`
    if (!service) return SerialRegistryAnswer::noService();
    for (const char* property : {"Serial Number", "USB Serial Number"}) {
        CFTypeRef value = searchProperty(service, property);
        if (!value) continue;
        auto text = stringOf(value);
        CFRelease(value);
        IOObjectRelease(service);
        return SerialRegistryAnswer::found(property, std::move(text));
    }
    IOObjectRelease(service);
    return SerialRegistryAnswer::neitherProperty();
}

}  // namespace ql
