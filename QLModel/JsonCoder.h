#pragma once

// JSON coding of the model's value types. Every model type specialises `JsonCoder<T>` with
//
//     static Json encode(const T&);
//     static tl::expected<T, ModelDecodeError> decode(const Json&, const std::string& path);
//
// and callers use `toJson(value)` and `fromJson<T>(json)`. Decoding never throws: every problem
// comes back as a `ModelDecodeError` naming where in the document it sits.

#include "QLModel/ModelDate.h"
#include "QLModel/ModelDecodeError.h"
#include "QLSupport/Json.h"
#include "QLSupport/Uuid.h"

#include <tl/expected.hpp>

#include <array>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace ql {

template <typename T>
struct JsonCoder;

template <typename T>
Json toJson(const T& value) {
    return JsonCoder<T>::encode(value);
}

template <typename T>
tl::expected<T, ModelDecodeError> fromJson(const Json& json, const std::string& path = {}) {
    return JsonCoder<T>::decode(json, path);
}

// Parses JSON text and decodes it; text that is not JSON fails with `invalidJSON`.
template <typename T>
tl::expected<T, ModelDecodeError> fromJsonText(std::string_view text) {
    auto json = parseJson(text);
    if (!json) return tl::unexpected(ModelDecodeError::invalidJSON(json.error()));
    return JsonCoder<T>::decode(*json, {});
}

template <>
struct JsonCoder<std::string> {
    static Json encode(const std::string& value) { return value; }
    static tl::expected<std::string, ModelDecodeError> decode(const Json& json, const std::string& path);
};

template <>
struct JsonCoder<bool> {
    static Json encode(bool value) { return value; }
    static tl::expected<bool, ModelDecodeError> decode(const Json& json, const std::string& path);
};

template <>
struct JsonCoder<std::int64_t> {
    static Json encode(std::int64_t value) { return value; }
    static tl::expected<std::int64_t, ModelDecodeError> decode(const Json& json, const std::string& path);
};

template <>
struct JsonCoder<std::uint64_t> {
    static Json encode(std::uint64_t value) { return value; }
    static tl::expected<std::uint64_t, ModelDecodeError> decode(const Json& json, const std::string& path);
};

// UUIDs as canonical upper-case text; either case is read.
template <>
struct JsonCoder<Uuid> {
    static Json encode(const Uuid& value) { return value.text(); }
    static tl::expected<Uuid, ModelDecodeError> decode(const Json& json, const std::string& path);
};

// Dates as ISO 8601 in UTC with whole seconds ("2026-11-21T04:39:00Z"); fractional seconds and
// numeric offsets are read and floored to the second.
template <>
struct JsonCoder<ModelDate> {
    static Json encode(const ModelDate& value) { return Iso8601::format(value); }
    static tl::expected<ModelDate, ModelDecodeError> decode(const Json& json, const std::string& path);
};

template <typename T>
struct JsonCoder<std::vector<T>> {
    static Json encode(const std::vector<T>& values) {
        Json out = Json::array();
        for (const auto& v : values) out.push_back(JsonCoder<T>::encode(v));
        return out;
    }
    static tl::expected<std::vector<T>, ModelDecodeError> decode(const Json& json, const std::string& path) {
        if (!json.is_array()) return tl::unexpected(ModelDecodeError::typeMismatch(path, "an array", jsonTypeName(json)));
        std::vector<T> out;
        out.reserve(json.size());
        for (std::size_t i = 0; i < json.size(); ++i) {
            auto element = JsonCoder<T>::decode(json[i], path + "[" + std::to_string(i) + "]");
            if (!element) return tl::unexpected(std::move(element.error()));
            out.push_back(std::move(*element));
        }
        return out;
    }
};

// Sets are JSON arrays; the order carries no meaning and duplicates collapse.
template <typename T>
struct JsonCoder<std::set<T>> {
    static Json encode(const std::set<T>& values) {
        Json out = Json::array();
        for (const auto& v : values) out.push_back(JsonCoder<T>::encode(v));
        return out;
    }
    static tl::expected<std::set<T>, ModelDecodeError> decode(const Json& json, const std::string& path) {
        auto elements = JsonCoder<std::vector<T>>::decode(json, path);
        if (!elements) return tl::unexpected(std::move(elements.error()));
        return std::set<T>(elements->begin(), elements->end());
    }
};

}  // namespace ql

namespace ql {

// Decodes a text-valued enumeration whose cases are numbered 0..N-1 in the order of `names`.
// An unknown text fails with `unknownCase`.
template <typename E, std::size_t N>
tl::expected<E, ModelDecodeError> decodeNamedCase(const Json& json, const std::string& path,
                                                  const std::array<std::string_view, N>& names) {
    if (!json.is_string()) return tl::unexpected(ModelDecodeError::typeMismatch(path, "a string", jsonTypeName(json)));
    const auto& text = json.get_ref<const std::string&>();
    for (std::size_t i = 0; i < N; ++i) {
        if (names[i] == text) return static_cast<E>(i);
    }
    return tl::unexpected(ModelDecodeError::unknownCase(path, text));
}

}  // namespace ql
