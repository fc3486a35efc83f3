#pragma once

#include <cstddef>
#include <string>

namespace ql {

// Why a wire volume identity was refused. The bridge is strict on the way in: it never turns a
// message into an identity the sender did not state.
//
//   missingField     a required member or oneof is absent; `path` names it ("VolumeKey.kind")
//   unspecifiedEnum  an enum holds its unspecified value or a number this build does not know;
//                    `path` is the enum's name, with the raw number when unknown
//                    ("VolumeTarget.Kind", "VolumeTarget.Kind(7)")
//   malformedUUID    a UUID field is not 16 bytes; `path` names it, `byteCount` is what was seen
struct VolumeBridgeError {
    enum class Kind { missingField, unspecifiedEnum, malformedUUID };

    Kind kind = Kind::missingField;
    std::string path;
    std::size_t byteCount = 0;

    static VolumeBridgeError missingField(std::string path);
    static VolumeBridgeError unspecifiedEnum(std::string enumName);
    static VolumeBridgeError malformedUUID(std::string path, std::size_t byteCount);

    // A sentence naming the field, for logs and for the error text of a refused call.
    std::string message() const;

    friend bool operator==(const VolumeBridgeError&, const VolumeBridgeError&) = default;
};

}  // namespace ql
