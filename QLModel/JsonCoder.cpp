#include "QLModel/JsonCoder.h"

#include <limits>

namespace ql {

tl::expected<std::string, ModelDecodeError> JsonCoder<std::string>::decode(const Json& json,
                                                                           const std::string& path) {
    if (!json.is_string()) return tl::unexpected(ModelDecodeError::typeMismatch(path, "a string", jsonTypeName(json)));
    return json.get<std::string>();
}

tl::expected<bool, ModelDecodeError> JsonCoder<bool>::decode(const Json& json, const std::string& path) {
    if (!json.is_boolean()) return tl::unexpected(ModelDecodeError::typeMismatch(path, "a boolean", jsonTypeName(json)));
    return json.get<bool>();
}

tl::expected<std::int64_t, ModelDecodeError> JsonCoder<std::int64_t>::decode(const Json& json,
                                                                             const std::string& path) {
    if (json.is_number_unsigned()) {
        auto value = json.get<std::uint64_t>();
        if (value > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
            return tl::unexpected(ModelDecodeError::invalidValue(path, "the number does not fit a 64-bit integer"));
        }
        return static_cast<std::int64_t>(value);
    }
    if (json.is_number_integer()) return json.get<std::int64_t>();
    return tl::unexpected(ModelDecodeError::typeMismatch(path, "an integer", jsonTypeName(json)));
}

tl::expected<std::uint64_t, ModelDecodeError> JsonCoder<std::uint64_t>::decode(const Json& json,
                                                                               const std::string& path) {
    if (json.is_number_unsigned()) return json.get<std::uint64_t>();
    if (json.is_number_integer()) {
        return tl::unexpected(ModelDecodeError::invalidValue(path, "a negative number where an unsigned one belongs"));
    }
    return tl::unexpected(ModelDecodeError::typeMismatch(path, "an unsigned integer", jsonTypeName(json)));
}

tl::expected<Uuid, ModelDecodeError> JsonCoder<Uuid>::decode(const Json& json, const std::string& path) {
    if (!json.is_string()) return tl::unexpected(ModelDecodeError::typeMismatch(path, "a UUID string", jsonTypeName(json)));
    auto uuid = Uuid::parse(json.get_ref<const std::string&>());
    if (!uuid) return tl::unexpected(ModelDecodeError::invalidValue(path, uuid.error()));
    return *uuid;
}

tl::expected<ModelDate, ModelDecodeError> JsonCoder<ModelDate>::decode(const Json& json, const std::string& path) {
    if (!json.is_string()) return tl::unexpected(ModelDecodeError::typeMismatch(path, "a date string", jsonTypeName(json)));
    auto instant = Iso8601::parse(json.get_ref<const std::string&>());
    if (!instant) return tl::unexpected(ModelDecodeError::invalidValue(path, instant.error()));
    return modelDate(*instant);
}

}  // namespace ql
