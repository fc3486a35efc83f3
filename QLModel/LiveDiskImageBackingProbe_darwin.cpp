#include "QLModel/LiveDiskImageBackingProbe.h"

#include <CoreFoundation/CoreFoundation.h>
#include <IOKit/IOKitLib.h>

#include <vector>

namespace ql {

std::optional<DiskImageBacking> LiveDiskImageBackingProbe::backing(const std::string& requested) {
    std::string device = requested.rfind("/dev/", 0) == 0 ? requested.substr(5) : requested;
    CFMutableDictionaryRef matching = IOBSDNameMatching(MACH_PORT_NULL, 0, device.c_str());
    if (!matching) return std::nullopt;
    io_service_t media = IOServiceGetMatchingService(MACH_PORT_NULL, matching);  // consumes `matching`
    if (!media) return std::nullopt;
    CFTypeRef value = IORegistryEntrySearchCFProperty(media, kIOServicePlane, CFSTR("image-path"), kCFAllocatorDefault,
                                                      kIORegistryIterateRecursively | kIORegistryIterateParents);
    IOObjectRelease(media);
    if (!value) return std::nullopt;
    std::optional<std::string> path;
    if (CFGetTypeID(value) == CFDataGetTypeID()) {
        auto data = static_cast<CFDataRef>(value);
        std::string bytes(reinterpret_cast<const char*>(CFDataGetBytePtr(data)),
                          static_cast<std::size_t>(CFDataGetLength(data)));
        if (auto nul = bytes.find('\0'); nul != std::string::npos) bytes.resize(nul);
        path = bytes;
    } else if (CFGetTypeID(value) == CFStringGetTypeID()) {
        auto text = static_cast<CFStringRef>(value);
        CFIndex length = CFStringGetMaximumSizeForEncoding(CFStringGetLength(text), kCFStringEncodingUTF8) + 1;
        std::vector<char> buffer(static_cast<std::size_t>(length));
        if (CFStringGetCString(text, buffer.data(), length, kCFStringEncodingUTF8)) path = std::string(buffer.data());
    }
    CFRelease(value);
    if (!path || path->empty()) return std::nullopt;
    return DiskImageBacking{*path, std::nullopt};
}

}  // namespace ql
