#include "QLProtocol/server/PlatformIdentityProbe.h"

#include "QLSupport/Uuid.h"

#include <algorithm>
#include <cctype>

namespace ql {
namespace {

std::string_view trim(std::string_view text) {
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front()))) text.remove_prefix(1);
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) text.remove_suffix(1);
    return text;
}

}  // namespace

std::optional<std::string> LinuxIdentityFiles::machineIDFromText(std::string_view text) {
    text = trim(text);
    if (text.size() != 32 || !std::all_of(text.begin(), text.end(), [](char c) { return std::isxdigit(
                                                                                   static_cast<unsigned char>(c)); })) {
        return std::nullopt;
    }
    std::string dashed;
    dashed.reserve(36);
    for (std::size_t i = 0; i < 32; ++i) {
        if (i == 8 || i == 12 || i == 16 || i == 20) dashed.push_back('-');
        dashed.push_back(text[i]);
    }
    auto uuid = Uuid::parse(dashed);
    if (!uuid || uuid->isNil()) return std::nullopt;
    return uuid->text();
}

std::optional<std::string> LinuxIdentityFiles::productUUIDFromText(std::string_view text) {
    auto uuid = Uuid::parse(trim(text));
    if (!uuid || uuid->isNil()) return std::nullopt;
    const auto& bytes = uuid->bytes();
    if (std::all_of(bytes.begin(), bytes.end(), [](std::uint8_t b) { return b == 0xFF; })) return std::nullopt;
    return uuid->text();
}

}  // namespace ql
