#pragma once

#include "QLProtocol/proto/runs.pb.h"
#include "QLProtocol/proto/tiles.pb.h"
#include "QLSupport/Clock.h"

#include <cstdint>
#include <optional>
#include <string>

namespace ql {

// Turns a finished run into the record kept in the job's history, with its one-line summary.
struct RunRecordBuilder {
    // What the job manager knows about the run besides its terminal event.
    struct Facts {
        std::string runID;  // UUID text
        std::string tileID;
        SystemTime startedAt;
        SystemTime endedAt;
        bool isCatchup = false;
        bool isOneTimeOSUpdate = false;
        bool asBootable = false;
        ql4::transport::v1::DuringCopyMethod duringCopy = ql4::transport::v1::DCM_UNSPECIFIED;
        std::string sourceDisplayName;
        std::string destinationDisplayName;
        std::optional<std::string> sourceSubpath;
        std::optional<std::string> destinationSubpath;
        // Bytes copied according to the latest progress sample, for runs that end without a
        // completion report.
        std::int64_t bytesCopied = 0;
    };

    static ql4::transport::v1::RunRecord build(const Facts& facts, const ql4::transport::v1::ClonerEvent& terminal,
                                               std::string logContent);

    // "Copied 1048576 bytes in 2m 05s", "Cancelled by user", "Failed in copyFiles: …".
    static std::string summary(const ql4::transport::v1::ClonerEvent& terminal, Duration elapsed);

    // "0.4s", "42s", "2m 05s", "1h 02m 03s".
    static std::string formatDuration(Duration elapsed);

    // The stored job's copy mode for a request's update method; none for an unspecified or
    // unknown method.
    static std::optional<ql4::transport::v1::CopyMode> copyMode(ql4::transport::v1::DuringCopyMethod method);
};

}  // namespace ql
