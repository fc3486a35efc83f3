#include "QLProtocol/server/RunFinishedNotifier.h"

#include "QLSupport/Log.h"

#include <CoreFoundation/CoreFoundation.h>

namespace ql {
namespace {

CFStringRef makeString(const std::string& text) {
    return CFStringCreateWithCString(kCFAllocatorDefault, text.c_str(), kCFStringEncodingUTF8);
}

}  // namespace

asio::awaitable<void> LiveRunFinishedNotifier::post(RunFinishedNotice notice) {
    const std::string name = options_.appIdentifier + ".runFinished";
    CFMutableDictionaryRef info = CFDictionaryCreateMutable(kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks,
                                                            &kCFTypeDictionaryValueCallBacks);
    for (const auto& [key, value] : notice.userInfo()) {
        CFStringRef k = makeString(key);
        CFStringRef v = makeString(value);
        CFDictionarySetValue(info, k, v);
        CFRelease(k);
        CFRelease(v);
    }
    CFStringRef cfName = makeString(name);
    CFNotificationCenterPostNotification(CFNotificationCenterGetDistributedCenter(), cfName, nullptr, info, true);
    CFRelease(cfName);
    CFRelease(info);
    Log::line("RunRecordSink", name + " posted for tile " + notice.tileID + " (" + notice.outcome + ")");
    co_return;
}

}  // namespace ql
