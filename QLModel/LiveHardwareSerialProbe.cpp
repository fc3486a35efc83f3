#include "QLModel/LiveHardwareSerialProbe.h"

#include "QLSupport/Log.h"

#include <cctype>

namespace ql {
namespace {

constexpr std::string_view kTag = "serialProbe";

bool isPadding(unsigned char c) { return std::isspace(c) || c == '\0'; }

}  // namespace

std::optional<HardwareSerial> LiveHardwareSerialProbe::serial(const std::string& device) {
    return decide(device, lookUp(device));
}

std::string LiveHardwareSerialProbe::normalize(std::string_view raw) {
    while (!raw.empty() && isPadding(static_cast<unsigned char>(raw.front()))) raw.remove_prefix(1);
    while (!raw.empty() && isPadding(static_cast<unsigned char>(raw.back()))) raw.remove_suffix(1);
    return std::string(raw);
}

std::optional<HardwareSerial> LiveHardwareSerialProbe::decide(const std::string& device,
                                                              const SerialRegistryAnswer& answer) {
    switch (answer.kind) {
        case SerialRegistryAnswer::Kind::noMatchingDictionary:
            Log::line(kTag, device + ": no matching dictionary — no serial");
            return std::nullopt;
        case SerialRegistryAnswer::Kind::noService:
            Log::line(kTag, device + ": no IOService for this BSD name — no serial");
            return std::nullopt;
        case SerialRegistryAnswer::Kind::neitherProperty:
            Log::line(kTag, device + ": neither 'Serial Number' nor 'USB Serial Number' found — no serial");
            return std::nullopt;
        case SerialRegistryAnswer::Kind::found:
            break;
    }
    auto value = answer.value ? normalize(*answer.value) : std::string();
    if (value.empty()) {
        Log::line(kTag, device + ": '" + answer.property + "' present but unusable (non-string or normalized empty)");
        return std::nullopt;
    }
    return HardwareSerial{std::move(value)};
}

}  // namespace ql
