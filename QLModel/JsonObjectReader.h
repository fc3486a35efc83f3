#pragma once

#include "QLModel/JsonCoder.h"

#include <optional>
#include <string>
#include <string_view>

namespace ql {

// Reads the fields of one JSON object into a record. The first problem is remembered and every
// later read returns a default value without looking, so a decoder reads all fields in order and
// checks `ok()` once:
//
//     JsonObjectReader r(json, path);
//     Source s{r.required<Uuid>("id"), r.required<VolumeRef>("ref"), r.required<std::string>("displayName")};
//     if (!r.ok()) return tl::unexpected(r.error());
//
// Members the record does not know are ignored. An optional field that is absent or null reads
// as empty.
class JsonObjectReader {
public:
    JsonObjectReader(const Json& json, std::string path);

    template <typename T>
    T required(std::string_view key) {
        if (error_) return T{};
        const Json* member = find(key);
        if (!member) {
            error_ = ModelDecodeError::missingField(joinCodingPath(path_, key));
            return T{};
        }
        return take(JsonCoder<T>::decode(*member, joinCodingPath(path_, key)));
    }

    template <typename T>
    std::optional<T> optional(std::string_view key) {
        if (error_) return std::nullopt;
        const Json* member = find(key);
        if (!member || member->is_null()) return std::nullopt;
        auto value = JsonCoder<T>::decode(*member, joinCodingPath(path_, key));
        if (!value) {
            error_ = std::move(value.error());
            return std::nullopt;
        }
        return std::move(*value);
    }

    // The member itself, or nullptr (recording `missingField`) when absent.
    const Json* requiredMember(std::string_view key);

    bool ok() const { return !error_; }
    const ModelDecodeError& error() const { return *error_; }
    void fail(ModelDecodeError error) {
        if (!error_) error_ = std::move(error);
    }
    const std::string& path() const { return path_; }

private:
    const Json* find(std::string_view key) const;

    template <typename T>
    T take(tl::expected<T, ModelDecodeError> value) {
        if (!value) {
            error_ = std::move(value.error());
            return T{};
        }
        return std::move(*value);
    }

    const Json& json_;
    std::string path_;
    std::optional<ModelDecodeError> error_;
};

// Tagged variants are written as an object with exactly one member named after the case; its
// value is an object with the case's payload fields under their labels ("_0" for an unlabelled
// payload), or the empty object for a case without payload.
struct TaggedCase {
    std::string name;
    const Json* payload = nullptr;  // always an object
    std::string path;               // path of the payload object
};

// Reads the one member of a tagged variant. Zero or several members fail with
// "Invalid number of keys found, expected one."; a payload that is not an object fails with
// `typeMismatch`. The case name is checked by the caller.
tl::expected<TaggedCase, ModelDecodeError> readTaggedCase(const Json& json, const std::string& path);

// Writes a tagged variant: {name: payload}.
Json taggedCase(std::string_view name, Json payload = Json::object());

}  // namespace ql
