#pragma once

#include "QLProtocol/proto/runs.pb.h"

#include <optional>
#include <string>
#include <string_view>

namespace ql {

// The file-copy runner's own event payloads: a `ClonerEvent` with only its payload set (the job
// manager stamps the run id and the time).
struct PayloadBuilder {
    using Event = ql4::transport::v1::ClonerEvent;
    using Level = ql4::transport::v1::LogLine::Level;

    static Event logPayload(Level level, std::string text);
    static Event phaseStartPayload(std::string name);
    static Event phaseEndPayload(std::string name, bool succeeded);
    static Event stepStartPayload(std::string phase, std::string name);
    static Event stepEndPayload(std::string phase, std::string name, bool succeeded, std::string errorMessage = {});
    // A completed terminal. `summary` (the engine's own completed payload) supplies the counters
    // when there is one.
    static Event completedPayload(bool previewDestinationAbsent,
                                  const std::optional<ql4::transport::v1::RunCompleted>& summary = std::nullopt);
    // A failed terminal; `side` is "source" or "destination" when the failure concerns one end.
    static Event failedPayload(std::string message, std::string phase, bool notConnected = false,
                               std::string side = {});
    static Event cancelledPayload();
    static Event pauseRequestedPayload();
    static Event pausedPayload();
    static Event resumedPayload();

    // Whether an event ends a run.
    static bool isTerminal(const Event& event);
};

}  // namespace ql
