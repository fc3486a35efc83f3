#include "QLProtocol/runners/PayloadBuilder.h"

namespace ql {

using Event = PayloadBuilder::Event;

Event PayloadBuilder::logPayload(Level level, std::string text) {
    Event e;
    e.mutable_log()->set_level(level);
    e.mutable_log()->set_text(std::move(text));
    return e;
}

Event PayloadBuilder::phaseStartPayload(std::string name) {
    Event e;
    e.mutable_phase_start()->set_name(std::move(name));
    return e;
}

Event PayloadBuilder::phaseEndPayload(std::string name, bool succeeded) {
    Event e;
    e.mutable_phase_end()->set_name(std::move(name));
    e.mutable_phase_end()->set_succeeded(succeeded);
    return e;
}

Event PayloadBuilder::stepStartPayload(std::string phase, std::string name) {
    Event e;
    e.mutable_step_start()->set_phase_name(std::move(phase));
    e.mutable_step_start()->set_name(std::move(name));
    return e;
}

Event PayloadBuilder::stepEndPayload(std::string phase, std::string name, bool succeeded, std::string errorMessage) {
    Event e;
    auto* end = e.mutable_step_end();
    end->set_phase_name(std::move(phase));
    end->set_name(std::move(name));
    end->set_succeeded(succeeded);
    end->set_error_message(std::move(errorMessage));
    return e;
}

Event PayloadBuilder::completedPayload(bool previewDestinationAbsent,
                                       const std::optional<ql4::transport::v1::RunCompleted>& summary) {
    Event e;
    auto* completed = e.mutable_completed();
    if (summary) *completed = *summary;
    completed->set_preview_destination_absent(previewDestinationAbsent);
    return e;
}

Event PayloadBuilder::failedPayload(std::string message, std::string phase, bool notConnected, std::string side) {
    Event e;
    auto* failed = e.mutable_failed();
    failed->set_error_message(std::move(message));
    failed->set_failed_phase(std::move(phase));
    failed->set_destination_not_connected(notConnected);
    failed->set_failed_side(std::move(side));
    return e;
}

Event PayloadBuilder::cancelledPayload() {
    Event e;
    e.mutable_cancelled();
    return e;
}

Event PayloadBuilder::pauseRequestedPayload() {
    Event e;
    e.mutable_pause_requested();
    return e;
}

Event PayloadBuilder::pausedPayload() {
    Event e;
    e.mutable_paused();
    return e;
}

Event PayloadBuilder::resumedPayload() {
    Event e;
    e.mutable_resumed();
    return e;
}

bool PayloadBuilder::isTerminal(const Event& event) {
    return event.has_completed() || event.has_failed() || event.has_cancelled();
}

}  // namespace ql
