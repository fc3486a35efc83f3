#pragma once

#include "QLSupport/Iso8601.h"

#include <tl/expected.hpp>

#include <cstdint>
#include <filesystem>
#include <initializer_list>
#include <iosfwd>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace ql {

class PlistValue;

// A property-list dictionary that keeps its keys in the order they were read or inserted, so a
// document written back lists them exactly as it found them. Keys are unique: setting an
// existing key replaces its value in place.
class PlistDictionary {
public:
    using Entry = std::pair<std::string, PlistValue>;
    using const_iterator = std::vector<Entry>::const_iterator;
    using iterator = std::vector<Entry>::iterator;

    PlistDictionary() = default;
    PlistDictionary(std::initializer_list<Entry> entries);

    // Replaces the value of `key` where it stands, or appends it.
    void set(std::string key, PlistValue value);
    // nullptr when absent.
    const PlistValue* find(std::string_view key) const;
    PlistValue* find(std::string_view key);
    bool contains(std::string_view key) const { return find(key) != nullptr; }
    // Removes `key`; false when it was absent.
    bool erase(std::string_view key);

    // Defined below, once PlistValue is complete.
    std::size_t size() const;
    bool empty() const;
    const_iterator begin() const;
    const_iterator end() const;
    iterator begin();
    iterator end();

    // Equal when the same keys appear in the same order with equal values.
    friend bool operator==(const PlistDictionary& a, const PlistDictionary& b);

private:
    std::vector<Entry> entries_;
};

// A property-list uid (the keyed-archive object reference of binary property lists). XML has no
// uid element: an XML writer spells it as a dictionary with the single key "CF$UID", and reading
// that XML back yields the dictionary.
struct PlistUid {
    std::uint64_t value = 0;
    friend bool operator==(const PlistUid&, const PlistUid&) = default;
};

// An instant in a property list. XML keeps whole seconds. Binary keeps a double of seconds,
// which libplist 2.2 reads back truncated to the microsecond, so an instant written with
// microseconds may come back one microsecond early; binary fractions (.5, .25) come back exactly.
struct PlistDate {
    SystemTime instant{};
    friend bool operator==(const PlistDate&, const PlistDate&) = default;
};

// Any property-list value. Integers are signed 64-bit; an unsigned value above the signed range
// (which both formats can hold) is kept as such and written back unchanged.
class PlistValue {
public:
    enum class Kind { boolean, integer, real, string, data, date, array, dict, uid };
    using Array = std::vector<PlistValue>;
    using Bytes = std::vector<std::uint8_t>;

    // The default value is an empty string.
    PlistValue() : value_(std::string()) {}
    PlistValue(bool v) : value_(v) {}
    PlistValue(int v) : value_(std::int64_t{v}) {}
    PlistValue(std::int64_t v) : value_(v) {}
    // Values that fit the signed range are stored as signed integers.
    PlistValue(std::uint64_t v);
    PlistValue(double v) : value_(v) {}
    PlistValue(std::string v) : value_(std::move(v)) {}
    PlistValue(std::string_view v) : value_(std::string(v)) {}
    PlistValue(const char* v) : value_(std::string(v)) {}
    PlistValue(Bytes v) : value_(std::move(v)) {}
    PlistValue(PlistDate v) : value_(v) {}
    PlistValue(Array v) : value_(std::move(v)) {}
    PlistValue(PlistDictionary v) : value_(std::move(v)) {}
    PlistValue(PlistUid v) : value_(v) {}

    Kind kind() const;
    // The kind's name as messages use it: "boolean", "integer", "real", "string", "data",
    // "date", "array", "dictionary", "uid".
    std::string_view typeName() const;
    static std::string_view typeName(Kind kind);

    bool isBool() const { return std::holds_alternative<bool>(value_); }
    bool isInteger() const { return kind() == Kind::integer; }
    // An integer above the signed 64-bit range.
    bool isUnsignedInteger() const { return std::holds_alternative<std::uint64_t>(value_); }
    bool isReal() const { return std::holds_alternative<double>(value_); }
    bool isString() const { return std::holds_alternative<std::string>(value_); }
    bool isData() const { return std::holds_alternative<Bytes>(value_); }
    bool isDate() const { return std::holds_alternative<PlistDate>(value_); }
    bool isArray() const { return std::holds_alternative<Array>(value_); }
    bool isDict() const { return std::holds_alternative<PlistDictionary>(value_); }
    bool isUid() const { return std::holds_alternative<PlistUid>(value_); }

    // nullptr when the value is of another kind.
    const bool* asBool() const { return std::get_if<bool>(&value_); }
    const std::int64_t* asInteger() const { return std::get_if<std::int64_t>(&value_); }
    const std::uint64_t* asUnsignedInteger() const { return std::get_if<std::uint64_t>(&value_); }
    const double* asReal() const { return std::get_if<double>(&value_); }
    const std::string* asString() const { return std::get_if<std::string>(&value_); }
    const Bytes* asData() const { return std::get_if<Bytes>(&value_); }
    const PlistDate* asDate() const { return std::get_if<PlistDate>(&value_); }
    const Array* asArray() const { return std::get_if<Array>(&value_); }
    Array* asArray() { return std::get_if<Array>(&value_); }
    const PlistDictionary* asDict() const { return std::get_if<PlistDictionary>(&value_); }
    PlistDictionary* asDict() { return std::get_if<PlistDictionary>(&value_); }
    const PlistUid* asUid() const { return std::get_if<PlistUid>(&value_); }

    // Dictionary member lookup; nullptr when this is not a dictionary or the key is absent.
    const PlistValue* find(std::string_view key) const;

    // Equality of kind and value. Two reals are equal when they compare equal or are both NaN.
    friend bool operator==(const PlistValue& a, const PlistValue& b);

    // A compact one-line rendering for logs and test failures, e.g.
    // {"Item": "Users", "n": 3, "blob": <0001>, "when": @2024-03-01T12:30:15Z}.
    std::string description() const;
    friend std::ostream& operator<<(std::ostream& out, const PlistValue& value);

private:
    std::variant<bool, std::int64_t, std::uint64_t, double, std::string, Bytes, PlistDate, Array,
                 PlistDictionary, PlistUid>
        value_;
};

inline std::size_t PlistDictionary::size() const { return entries_.size(); }
inline bool PlistDictionary::empty() const { return entries_.empty(); }
inline PlistDictionary::const_iterator PlistDictionary::begin() const { return entries_.begin(); }
inline PlistDictionary::const_iterator PlistDictionary::end() const { return entries_.end(); }
inline PlistDictionary::iterator PlistDictionary::begin() { return entries_.begin(); }
inline PlistDictionary::iterator PlistDictionary::end() { return entries_.end(); }

// Why a property list could not be read or written, with a sentence for people.
struct PlistError {
    enum class Kind {
        empty,             // no bytes at all
        tooLarge,          // beyond what the parser takes (4 GiB) or expands to too many values
        tooDeep,           // arrays and dictionaries nested deeper than `PropertyList::maxDepth`
        malformed,         // neither a well-formed XML nor binary property list
        unsupportedValue,  // a value this model cannot hold (null, a non-UTF-8 string, ...)
        unwritable,        // a value the writer cannot express (a date out of range, a NUL in a string)
        unreadableFile,    // the file could not be read
    };
    Kind kind = Kind::malformed;
    std::string detail;  // the specific sentence

    std::string message() const { return detail; }
    friend bool operator==(const PlistError&, const PlistError&) = default;
};

// Reading and writing property lists (XML and binary) over libplist.
struct PropertyList {
    enum class Format { xml, binary };

    // Arrays and dictionaries nest at most this deep; deeper input is refused before it reaches
    // the parser, which recurses.
    static constexpr int maxDepth = 512;
    // A binary property list may share objects; it is refused when it would expand to more
    // values than this.
    static constexpr std::uint64_t maxValues = 4'000'000;

    // Reads a binary ("bplist00...") or XML property list, telling them apart by their bytes.
    // Never throws and never trusts the input: any byte string yields a value or an error.
    static tl::expected<PlistValue, PlistError> read(std::string_view bytes);
    static tl::expected<PlistValue, PlistError> readFile(const std::filesystem::path& path);
    static Format detectFormat(std::string_view bytes);

    // XML keeps dates to the whole second and spells uids as {"CF$UID": n}. Strings and keys
    // must be valid UTF-8 without NUL characters, and dates must lie within 2^31 seconds of the
    // property-list epoch 2001-01-01 (1932-12-13 to 2069-01-19); anything else is refused with an
    // error rather than written wrongly.
    static tl::expected<std::string, PlistError> writeXml(const PlistValue& value);
    static tl::expected<std::string, PlistError> writeBinary(const PlistValue& value);
    static tl::expected<std::string, PlistError> write(const PlistValue& value, Format format);
};

}  // namespace ql
