#pragma once

#include "QLModel/JsonCoder.h"

#include <string>
#include <string_view>

namespace ql {

// The role an APFS volume carries inside its container: `system`, `data`, `preboot`, `recovery`,
// `vm`, or `other` with the name of any other role. A tagged variant; in JSON a one-member object
// ({"data": {}}, {"other": {"_0": "Backup"}}).
class APFSVolumeRole {
public:
    enum class Kind { system, data, preboot, recovery, vm, other };

    APFSVolumeRole() = default;
    static APFSVolumeRole system() { return APFSVolumeRole(Kind::system); }
    static APFSVolumeRole data() { return APFSVolumeRole(Kind::data); }
    static APFSVolumeRole preboot() { return APFSVolumeRole(Kind::preboot); }
    static APFSVolumeRole recovery() { return APFSVolumeRole(Kind::recovery); }
    static APFSVolumeRole vm() { return APFSVolumeRole(Kind::vm); }
    static APFSVolumeRole other(std::string name) { return APFSVolumeRole(Kind::other, std::move(name)); }
    // The role a disk tool or a stored binding names ("Data", "system", …, in any case); any other
    // name is `other` with that name.
    static APFSVolumeRole named(const std::string& name);

    Kind kind() const { return kind_; }
    // The role's name when `kind()` is `other`; empty otherwise.
    const std::string& otherName() const { return otherName_; }
    // "system", "data", "preboot", "recovery", "vm" or "other".
    std::string_view caseName() const;
    // For logs: the case name, or "other(Name)".
    std::string description() const;

    friend bool operator==(const APFSVolumeRole&, const APFSVolumeRole&) = default;

private:
    explicit APFSVolumeRole(Kind kind, std::string name = {}) : kind_(kind), otherName_(std::move(name)) {}

    Kind kind_ = Kind::system;
    std::string otherName_;
};

template <>
struct JsonCoder<APFSVolumeRole> {
    static Json encode(const APFSVolumeRole& value);
    static tl::expected<APFSVolumeRole, ModelDecodeError> decode(const Json& json, const std::string& path);
};

}  // namespace ql

template <>
struct std::hash<ql::APFSVolumeRole> {
    std::size_t operator()(const ql::APFSVolumeRole& role) const noexcept;
};
