#pragma once

#include <nlohmann/json.hpp>
#include <tl/expected.hpp>

#include <string>
#include <string_view>

namespace ql {

using Json = nlohmann::json;

// Parses JSON text without throwing; the error names the byte offset and what was wrong.
tl::expected<Json, std::string> parseJson(std::string_view text);

// Serialises with sorted keys (nlohmann's object type is ordered) and, when `indent` >= 0,
// pretty-printed. Invalid UTF-8 in strings is replaced rather than thrown on.
std::string dumpJson(const Json& value, int indent = -1);

// The name of a JSON value's type as error messages use it ("string", "object", ...).
std::string jsonTypeName(const Json& value);

}  // namespace ql
