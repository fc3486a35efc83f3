#include "QLModel/ModelDecodeError.h"

#include <fmt/format.h>

namespace ql {

std::string ModelDecodeError::message() const {
    switch (kind) {
        case Kind::invalidJSON:
            return fmt::format("The data is not valid JSON: {}", detail);
        case Kind::invalidNumberOfKeys:
            return "Invalid number of keys found, expected one.";
        case Kind::unknownCase:
            return fmt::format("Unknown case \"{}\".", detail);
        case Kind::missingField:
            return "A required value is missing.";
        case Kind::typeMismatch:
            return fmt::format("Expected {}.", detail);
        case Kind::invalidValue:
            return fmt::format("Invalid value: {}.", detail);
    }
    return "Invalid value.";
}

std::string ModelDecodeError::description() const {
    if (path.empty()) return message();
    return fmt::format("{} (at \"{}\")", message(), path);
}

ModelDecodeError ModelDecodeError::invalidJSON(std::string detail) {
    return {Kind::invalidJSON, {}, std::move(detail)};
}

ModelDecodeError ModelDecodeError::invalidNumberOfKeys(std::string path) {
    return {Kind::invalidNumberOfKeys, std::move(path), {}};
}

ModelDecodeError ModelDecodeError::unknownCase(std::string path, std::string name) {
    return {Kind::unknownCase, std::move(path), std::move(name)};
}

ModelDecodeError ModelDecodeError::missingField(std::string path) {
    return {Kind::missingField, std::move(path), {}};
}

ModelDecodeError ModelDecodeError::typeMismatch(std::string path, std::string expected, std::string found) {
    return {Kind::typeMismatch, std::move(path), fmt::format("{} but found {}", expected, found)};
}

ModelDecodeError ModelDecodeError::invalidValue(std::string path, std::string detail) {
    return {Kind::invalidValue, std::move(path), std::move(detail)};
}

std::string joinCodingPath(const std::string& parent, std::string_view member) {
    if (parent.empty()) return std::string(member);
    return fmt::format("{}.{}", parent, member);
}

}  // namespace ql
