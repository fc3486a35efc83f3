#include "QLSupport/Json.h"

#include <fmt/format.h>

namespace ql {

tl::expected<Json, std::string> parseJson(std::string_view text) {
    try {
        return Json::parse(text.begin(), text.end());
    } catch (const Json::parse_error& e) {
        return tl::unexpected(fmt::format("invalid JSON at byte {}: {}", e.byte, e.what()));
    }
}

std::string dumpJson(const Json& value, int indent) {
    return value.dump(indent, ' ', false, Json::error_handler_t::replace);
}

std::string jsonTypeName(const Json& value) {
    if (value.is_number_integer() || value.is_number_unsigned()) return "integer";
    return value.type_name();
}

}  // namespace ql
