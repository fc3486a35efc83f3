#pragma once

#include "QLProtocol/proto/runs.pb.h"
#include "QLProtocol/runners/QlcopyEvent.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ql {

// What the file-copy runner does with one complete line of the engine's stream, decided without
// side effects so that the runner only has to carry it out:
//
//   - a line that does not decode is logged ("ndjson decode FAILED: " and the error) and sent
//     to the client as a warning log line "[qlcopy-json-decode-failed] " + the line; the run
//     goes on;
//   - a blank line yields no event and is logged ("ndjson parse → nil (line: …)");
//   - an event without payload is logged as ignored and dropped, except `terminated`, which the
//     runner acts on itself;
//   - otherwise the mapped payload is forwarded; a progress payload also becomes the runner's
//     latest progress, and a summary's payload its captured summary.
struct QlcopyLineHandler {
    // The tag of the runner's log lines.
    static constexpr const char* kTag = "QlcopyJobRunner";
    // The prefix of a forwarded undecodable line.
    static constexpr const char* kDecodeFailedPrefix = "[qlcopy-json-decode-failed] ";

    struct Outcome {
        // The decoded event, when the line held one.
        std::optional<QlcopyEvent> event;
        // Texts for the server log, to be written under `kTag`.
        std::vector<std::string> serverLog;
        // The payload to send to the client (a `ClonerEvent` holding only its payload).
        std::optional<ql4::transport::v1::ClonerEvent> forward;
        // The event ends the engine's work (a summary, a failure, or `terminated`).
        bool isTerminal = false;
        // The forwarded payload is the run's latest progress.
        bool isProgress = false;
        // The forwarded payload is the engine's summary verdict.
        bool isSummary = false;
    };

    static Outcome handle(std::string_view line);
};

}  // namespace ql
