#pragma once

#include <string>

namespace ql {

// Why a line of the engine's event stream is not an event.
//
//   invalidJSON   the line is not JSON; `detail` is the parser's account
//   notAnObject   the line is JSON but not an object; `detail` names what it is
//   missingType   the object has no string "type"
//   unknownType   "type" names no event kind this build knows; `detail` is the name
//   typeMismatch  a known key holds the wrong kind of value; `key`, `detail` what it holds
//   outOfRange    a known key holds a number its field cannot hold; `key`, `detail` the number
struct QlcopyEventDecodeError {
    enum class Kind { invalidJSON, notAnObject, missingType, unknownType, typeMismatch, outOfRange };

    Kind kind = Kind::invalidJSON;
    std::string key;
    std::string detail;

    static QlcopyEventDecodeError invalidJSON(std::string detail) { return {Kind::invalidJSON, {}, std::move(detail)}; }
    static QlcopyEventDecodeError notAnObject(std::string found) { return {Kind::notAnObject, {}, std::move(found)}; }
    static QlcopyEventDecodeError missingType() { return {Kind::missingType, "type", {}}; }
    static QlcopyEventDecodeError unknownType(std::string name) { return {Kind::unknownType, "type", std::move(name)}; }
    static QlcopyEventDecodeError typeMismatch(std::string key, std::string detail) {
        return {Kind::typeMismatch, std::move(key), std::move(detail)};
    }
    static QlcopyEventDecodeError outOfRange(std::string key, std::string detail) {
        return {Kind::outOfRange, std::move(key), std::move(detail)};
    }

    // A sentence for the server log, e.g. "unknown event type \"bogus\"".
    std::string message() const;

    friend bool operator==(const QlcopyEventDecodeError&, const QlcopyEventDecodeError&) = default;
};

}  // namespace ql
