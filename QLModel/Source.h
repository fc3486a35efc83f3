#pragma once

#include "QLModel/JsonCoder.h"
#include "QLModel/VolumeRef.h"

#include <string>

namespace ql {

// What a copy job copies from: the volume or folder, and the name shown for it.
// JSON keys `id`, `ref`, `displayName`.
struct Source {
    Uuid id;
    VolumeRef ref;
    std::string displayName;

    friend bool operator==(const Source&, const Source&) = default;
};

template <>
struct JsonCoder<Source> {
    static Json encode(const Source& value);
    static tl::expected<Source, ModelDecodeError> decode(const Json& json, const std::string& path);
};

}  // namespace ql
