#include "QLProtocol/server/RunFinishedNotifier.h"

#include "QLSupport/Log.h"

namespace ql {

asio::awaitable<void> LiveRunFinishedNotifier::post(RunFinishedNotice notice) {
    const std::string name = options_.appIdentifier + ".runFinished";
    std::string whyNot;
    auto command = dbusCommand(notice, whyNot);
    if (!command) {
        Log::line("RunRecordSink", name + " for tile " + notice.tileID + " skipped — " + whyNot);
        co_return;
    }
    auto outcome = ShellRunner::requireSuccess(co_await runner_.run(*command), command->executable);
    if (!outcome) {
        Log::line("RunRecordSink", name + " for tile " + notice.tileID + " not sent: " + outcome.error().message());
        co_return;
    }
    Log::line("RunRecordSink", name + " sent for tile " + notice.tileID + " (" + notice.outcome + ")");
}

}  // namespace ql
