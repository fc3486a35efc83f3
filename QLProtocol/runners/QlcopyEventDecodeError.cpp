#include "QLProtocol/runners/QlcopyEventDecodeError.h"

#include <fmt/format.h>

namespace ql {

std::string QlcopyEventDecodeError::message() const {
    switch (kind) {
        case Kind::invalidJSON:
            return fmt::format("the line is not JSON: {}", detail);
        case Kind::notAnObject:
            return fmt::format("the line is a JSON {}, not an object", detail);
        case Kind::missingType:
            return "the event has no string \"type\"";
        case Kind::unknownType:
            return fmt::format("unknown event type \"{}\"", detail);
        case Kind::typeMismatch:
            return fmt::format("\"{}\" {}", key, detail);
        case Kind::outOfRange:
            return fmt::format("\"{}\" is out of range: {}", key, detail);
    }
    return "the event could not be decoded";
}

}  // namespace ql
