#include "QLProtocol/transport/VolumeBridgeError.h"

#include <fmt/format.h>

namespace ql {

VolumeBridgeError VolumeBridgeError::missingField(std::string path) { return {Kind::missingField, std::move(path), 0}; }

VolumeBridgeError VolumeBridgeError::unspecifiedEnum(std::string enumName) {
    return {Kind::unspecifiedEnum, std::move(enumName), 0};
}

VolumeBridgeError VolumeBridgeError::malformedUUID(std::string path, std::size_t byteCount) {
    return {Kind::malformedUUID, std::move(path), byteCount};
}

std::string VolumeBridgeError::message() const {
    switch (kind) {
        case Kind::missingField:
            return fmt::format("The volume identity lacks the required field {}.", path);
        case Kind::unspecifiedEnum:
            return fmt::format("The volume identity holds an unspecified or unknown value of {}.", path);
        case Kind::malformedUUID:
            return fmt::format("The volume identity field {} is not a UUID: it holds {} bytes instead of 16.", path,
                               byteCount);
    }
    return fmt::format("The volume identity is malformed at {}.", path);
}

}  // namespace ql
