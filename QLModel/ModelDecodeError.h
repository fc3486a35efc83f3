#pragma once

#include <string>

namespace ql {

// Why a model record could not be read from JSON. `path` is where in the document the problem
// sits ("destination.key.gptPartitionGUID._0"); an empty path is the document itself.
struct ModelDecodeError {
    enum class Kind {
        invalidJSON,          // the text is not JSON at all
        invalidNumberOfKeys,  // a tagged variant's object does not hold exactly one member
        unknownCase,          // a tagged variant or enumeration names no known case
        missingField,         // a required field is absent
        typeMismatch,         // a value has the wrong JSON type
        invalidValue,         // a value has the right type but is out of range or malformed
    };

    Kind kind = Kind::invalidValue;
    std::string path;
    std::string detail;

    // The sentence for this error. For `invalidNumberOfKeys` it is exactly
    // "Invalid number of keys found, expected one."
    std::string message() const;
    // The sentence followed by where it happened, for logs and user-facing descriptions.
    std::string description() const;

    static ModelDecodeError invalidJSON(std::string detail);
    static ModelDecodeError invalidNumberOfKeys(std::string path);
    static ModelDecodeError unknownCase(std::string path, std::string name);
    static ModelDecodeError missingField(std::string path);
    static ModelDecodeError typeMismatch(std::string path, std::string expected, std::string found);
    static ModelDecodeError invalidValue(std::string path, std::string detail);

    friend bool operator==(const ModelDecodeError&, const ModelDecodeError&) = default;
};

// Joins a parent path and a member name: ("", "key") -> "key", ("ref", "key") -> "ref.key".
std::string joinCodingPath(const std::string& parent, std::string_view member);

}  // namespace ql
