#include "QLModel/DiskutilError.h"

#include "QLModel/Overloaded.h"

#include <fmt/format.h>

#include <ostream>

namespace ql {

std::string DiskutilError::message() const {
    return std::visit(
        Overloaded{
            [](const ProcessFailed& e) {
                if (e.stderr.empty()) return fmt::format("diskutil failed with exit status {}.", e.exitCode);
                return fmt::format("diskutil failed with exit status {}: {}", e.exitCode, e.stderr);
            },
            [](const PlistParseFailed& e) {
                return fmt::format("diskutil's output could not be read as a property list: {}", e.detail);
            },
            [](const MissingField& e) {
                return fmt::format("diskutil's output lacks the required key \"{}\".", e.key);
            },
            [](const IncompleteScan& e) { return fmt::format("The disk scan was incomplete: {}", e.detail); },
            [](const DeviceUnreadable& e) { return fmt::format("Couldn't read {}: {}", e.device, e.detail); },
        },
        value);
}

std::ostream& operator<<(std::ostream& out, const DiskutilError& error) { return out << error.message(); }

}  // namespace ql
