#pragma once

#include "QLModel/JsonCoder.h"
#include "QLModel/ModelDate.h"

#include <optional>
#include <string>
#include <string_view>

namespace ql {

// The record of one finished run. JSON keys are the field names; `summary` is omitted when
// absent; dates are ISO 8601 with whole seconds.
struct RunRecord {
    // How the run ended. JSON value = the case name.
    enum class Outcome {
        succeeded,
        failed,
        cancelled,
        wrongDrive,               // the connected destination was not the job's bound volume
        destinationNotConnected,
    };

    Uuid id;
    Uuid tileID;  // the CopyTile.id of the job that ran
    ModelDate startedAt;
    ModelDate endedAt;
    Outcome outcome = Outcome::succeeded;
    // The run's log file, relative to the log directory.
    std::string logRelativePath;
    // One-line human summary of the run.
    std::optional<std::string> summary;

    friend bool operator==(const RunRecord&, const RunRecord&) = default;
};

std::string_view caseName(RunRecord::Outcome outcome);

template <>
struct JsonCoder<RunRecord::Outcome> {
    static Json encode(RunRecord::Outcome value) { return std::string(caseName(value)); }
    static tl::expected<RunRecord::Outcome, ModelDecodeError> decode(const Json& json, const std::string& path);
};

template <>
struct JsonCoder<RunRecord> {
    static Json encode(const RunRecord& value);
    static tl::expected<RunRecord, ModelDecodeError> decode(const Json& json, const std::string& path);
};

}  // namespace ql
