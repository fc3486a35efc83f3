#pragma once

#include "QLSupport/Uuid.h"

#include <string>
#include <string_view>

namespace ql {

// The two written forms of a run id (16 raw bytes on the wire): lowercase hexadecimal without
// separators for log lines ("runID=1a2b…"), and canonical UUID text for records and previews.
struct RunIdText {
    static std::string hex(std::string_view bytes) {
        static constexpr char digits[] = "0123456789abcdef";
        std::string out;
        out.reserve(bytes.size() * 2);
        for (unsigned char c : bytes) {
            out.push_back(digits[c >> 4]);
            out.push_back(digits[c & 0x0f]);
        }
        return out;
    }

    // UUID text; falls back to hexadecimal for a value that is not 16 bytes.
    static std::string uuid(std::string_view bytes) {
        auto decoded = UUIDCodec::decode(bytes);
        return decoded ? decoded->text() : hex(bytes);
    }
};

}  // namespace ql
