#include "QLProtocol/runners/UnavailableJobRunner.h"

#include "QLProtocol/server/RunIdText.h"
#include "QLSupport/Log.h"

namespace ql {

UnavailableJobRunner::UnavailableJobRunner(std::string message, ql4::transport::v1::RunId runID)
    : message_(std::move(message)), runID_(std::move(runID)) {}

JobRunner::Events::Consumer UnavailableJobRunner::run() {
    Log::f("dispatch", "runID={} refused: {}", RunIdText::hex(runID_.value()), message_);
    auto [producer, consumer] = Events::make();
    ql4::transport::v1::ClonerEvent failed;
    failed.mutable_failed()->set_error_message(message_);
    failed.mutable_failed()->set_failed_phase("prepare");
    producer.push(std::move(failed));
    producer.finish();
    return std::move(consumer);
}

}  // namespace ql
