#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <variant>

namespace ql {

// Why a disk probe could not answer. A tagged variant, each case with a sentence:
//
//   processFailed     the disk tool could not be started or exited with a non-zero status
//   plistParseFailed  its output is not a property list, or not a dictionary
//   missingField      a required key is missing (the key)
//   incompleteScan    a scan could not read everything it had to (what was missed)
//   deviceUnreadable  a device could not be read directly (the Linux probe, which reads block
//                     devices itself rather than through a tool)
struct DiskutilError {
    struct ProcessFailed {
        std::int32_t exitCode = 0;
        std::string stderr;
        friend bool operator==(const ProcessFailed&, const ProcessFailed&) = default;
    };
    struct PlistParseFailed {
        std::string detail;
        friend bool operator==(const PlistParseFailed&, const PlistParseFailed&) = default;
    };
    struct MissingField {
        std::string key;
        friend bool operator==(const MissingField&, const MissingField&) = default;
    };
    struct IncompleteScan {
        std::string detail;
        friend bool operator==(const IncompleteScan&, const IncompleteScan&) = default;
    };
    struct DeviceUnreadable {
        std::string device;
        std::string detail;
        friend bool operator==(const DeviceUnreadable&, const DeviceUnreadable&) = default;
    };
    enum class Kind { processFailed, plistParseFailed, missingField, incompleteScan, deviceUnreadable };

    std::variant<ProcessFailed, PlistParseFailed, MissingField, IncompleteScan, DeviceUnreadable> value;

    static DiskutilError processFailed(std::int32_t exitCode, std::string stderr) {
        return {ProcessFailed{exitCode, std::move(stderr)}};
    }
    static DiskutilError plistParseFailed(std::string detail) { return {PlistParseFailed{std::move(detail)}}; }
    static DiskutilError missingField(std::string key) { return {MissingField{std::move(key)}}; }
    static DiskutilError incompleteScan(std::string detail) { return {IncompleteScan{std::move(detail)}}; }
    static DiskutilError deviceUnreadable(std::string device, std::string detail) {
        return {DeviceUnreadable{std::move(device), std::move(detail)}};
    }

    Kind kind() const { return static_cast<Kind>(value.index()); }
    template <typename Case>
    const Case* as() const {
        return std::get_if<Case>(&value);
    }
    // A sentence for logs and reports.
    std::string message() const;

    friend bool operator==(const DiskutilError&, const DiskutilError&) = default;
};

std::ostream& operator<<(std::ostream& out, const DiskutilError& error);

}  // namespace ql
