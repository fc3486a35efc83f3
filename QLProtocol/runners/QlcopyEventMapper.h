#pragma once

#include "QLProtocol/proto/runs.pb.h"
#include "QLProtocol/runners/QlcopyEvent.h"

#include <optional>

namespace ql {

// Turns one engine event into what the client sees: at most one `ClonerEvent` payload, and
// whether the event ends the run. The payload travels in a `ClonerEvent` whose only member set
// is the payload; the runner stamps the time and run identifier.
//
//   progress            progress
//   item                previewItem
//   scan_mode           scanMode
//   phase_started       log (info) "[qlcopy-phase] main work started"
//   phase_completed     log (info) "[qlcopy-phase] main work completed"
//   stall, slow         log (warning) with the subject, the seconds and the path
//   warning, info       log (warning, info) "[kind] message"
//   failure             failed                                          terminal
//   summary, errors > 0 failed "The copy reported N error(s) (see log for details)"  terminal
//   summary otherwise   completed                                       terminal
//   terminated          nothing                                         terminal
//
// The runner does not end the run on `terminated`; it waits for the summary that may follow. An
// interrupted summary maps as any other summary; turning it into a cancellation after a user's
// cancel is the runner's business.
struct QlcopyEventMapper {
    struct Mapped {
        std::optional<ql4::transport::v1::ClonerEvent> payload;
        bool isTerminal = false;
    };

    // The phase reported for failures whose event names none.
    static constexpr const char* kCopyPhase = "copyFiles";

    static Mapped map(const QlcopyEvent& event);

    // The payloads of the individual rows, for callers that build them from parts.
    static ql4::transport::v1::Progress progressPayload(const QlcopyEvent& event);
    static ql4::transport::v1::RunCompleted completedPayload(const QlcopyEvent& event);
    static ql4::transport::v1::RunFailed failurePayload(const QlcopyEvent& event);
    static ql4::transport::v1::RunFailed summaryFailurePayload(const QlcopyEvent& event);
    static ql4::transport::v1::PreviewItem previewItemPayload(const QlcopyEvent& event);
    static ql4::transport::v1::ScanMode scanModePayload(const QlcopyEvent& event);
};

}  // namespace ql
