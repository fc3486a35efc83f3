#include "QLProtocol/runners/QlcopyLineHandler.h"

#include "QLProtocol/runners/QlcopyEventMapper.h"

#include <fmt/format.h>

namespace ql {

QlcopyLineHandler::Outcome QlcopyLineHandler::handle(std::string_view line) {
    namespace wire = ql4::transport::v1;
    Outcome outcome;

    auto decoded = QlcopyEvent::decode(line);
    if (!decoded) {
        outcome.serverLog.push_back("ndjson decode FAILED: " + decoded.error().message());
        wire::ClonerEvent forward;
        forward.mutable_log()->set_level(wire::LogLine::LEVEL_WARNING);
        forward.mutable_log()->set_text(std::string(kDecodeFailedPrefix) + std::string(line));
        outcome.forward = std::move(forward);
        return outcome;
    }
    if (!decoded->has_value()) {
        outcome.serverLog.push_back(fmt::format("ndjson parse → nil (line: {})", line));
        return outcome;
    }

    const QlcopyEvent& event = **decoded;
    auto mapped = QlcopyEventMapper::map(event);
    outcome.isTerminal = mapped.isTerminal;
    if (!mapped.payload) {
        if (event.type != QlcopyEvent::Kind::terminated) {
            outcome.serverLog.push_back("ndjson mapped → nil payload (qlcopy event ignored)");
        }
    } else {
        outcome.isProgress = mapped.payload->has_progress();
        outcome.isSummary = event.type == QlcopyEvent::Kind::summary;
        outcome.forward = std::move(mapped.payload);
    }
    outcome.event = std::move(**decoded);
    return outcome;
}

}  // namespace ql
