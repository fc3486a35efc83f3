#include "qlcopy/MediumProbe.h"

#include <CoreFoundation/CoreFoundation.h>
#include <IOKit/IOBSD.h>
#include <IOKit/IOKitLib.h>
#include <IOKit/storage/IOStorageDeviceCharacteristics.h>
#include <sys/mount.h>

#include <cstring>

namespace ql {

std::optional<bool> MediumProbe::isSolidState(const std::string& path) {
    struct statfs fs;
    if (::statfs(path.c_str(), &fs) != 0) return std::nullopt;
    const char* device = fs.f_mntfromname;
    if (std::strncmp(device, "/dev/", 5) != 0) return std::nullopt;
    io_service_t media = IOServiceGetMatchingService(kIOMainPortDefault, IOBSDNameMatching(kIOMainPortDefault, 0, device + 5));
    if (!media) return std::nullopt;
    std::optional<bool> answer;
    // Walk up from the media object to the device that describes its medium.
    CFTypeRef characteristics = IORegistryEntrySearchCFProperty(
        media, kIOServicePlane, CFSTR(kIOPropertyDeviceCharacteristicsKey), kCFAllocatorDefault,
        kIORegistryIterateRecursively | kIORegistryIterateParents);
    if (characteristics && CFGetTypeID(characteristics) == CFDictionaryGetTypeID()) {
        auto type = static_cast<CFStringRef>(
            CFDictionaryGetValue(static_cast<CFDictionaryRef>(characteristics), CFSTR(kIOPropertyMediumTypeKey)));
        if (type && CFGetTypeID(type) == CFStringGetTypeID()) {
            answer = CFStringCompare(type, CFSTR(kIOPropertyMediumTypeSolidStateKey), 0) == kCFCompareEqualTo;
        }
    }
    if (characteristics) CFRelease(characteristics);
    IOObjectRelease(media);
    return answer;
}

}  // namespace ql
