#pragma once

#include <iosfwd>
#include <string>

namespace ql {

// One recorded fact of a binding that no longer holds: which fact (`field`), the value recorded
// when the binding was made and the value read now, both as text. Field names in use:
// "partitionSizeBytes", "partitionMapType", "filesystemFamily", "containerUUID",
// "hardwareSerial", "hardwareSerialUnreadable", "diskImageInternalGUID".
struct InvariantMismatch {
    std::string field;
    std::string expected;
    std::string actual;

    // "partitionSizeBytes: expected 100, found 200", for logs.
    std::string description() const;

    friend bool operator==(const InvariantMismatch&, const InvariantMismatch&) = default;
};

std::ostream& operator<<(std::ostream& out, const InvariantMismatch& mismatch);

}  // namespace ql
