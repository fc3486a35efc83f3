#pragma once

#include "QLProtocol/server/CopyTileStore.h"
#include "QLProtocol/server/RunFinishedNotifier.h"
#include "QLProtocol/server/RunRecordSink.h"
#include "QLSupport/Actor.h"
#include "QLSupport/BlockingPool.h"

#include <filesystem>
#include <functional>
#include <optional>
#include <string>

namespace ql {

// Records a finished run: the full log in a sidecar file in the log directory, the record (with
// a capped copy of the log) in the job's history, a ".runFinished" notification to the user
// session, and a failed run handed to the failure-diagnostics collector. Each step is
// independent: one failing never stops the next.
class LiveRunRecordSink final : public Actor, public RunRecordSink {
public:
    using RunRecord = ql4::transport::v1::RunRecord;
    // Builds the diagnostics of a failed run (record, full log).
    using FailureDiagnostics = std::function<asio::awaitable<void>(RunRecord, std::string)>;

    struct Options {
        // Most `recent_runs` kept per job.
        std::size_t retentionCap = 20;
        // Most bytes of log kept inside the job record; the sidecar always has the whole log.
        std::size_t logContentCap = 32 * 1024;
        std::optional<FailureDiagnostics> failureDiagnostics;
    };

    LiveRunRecordSink(const Executor& executor, CopyTileStore& tileStore, std::filesystem::path logDirectory,
                      BlockingPool& pool, RunFinishedNotifier& notifier, Options options);

    asio::awaitable<void> record(RunRecord record, std::string fullLog) override;

    // A scheduled fire refused before it started: logged, and reported to the user session the
    // same way as a finished run.
    asio::awaitable<void> reportRefusedFire(std::string jobName, RunFinishedNotice notice);

    // The sidecar log's path for a run: "<job id>_<run id>.log" in the log directory.
    std::filesystem::path sidecarPath(const std::string& tileID, const std::string& runID) const;

    // The log as kept in the job: whole when it fits within `cap` bytes, otherwise a first line
    // pointing at the sidecar (or saying it is missing) followed by the log's last lines.
    static std::string cappedLog(const std::string& fullLog, std::size_t cap,
                                 const std::optional<std::filesystem::path>& sidecar);

    // "succeeded", "failed", "cancelled", "wrong_drive", "destination_not_connected".
    static std::string outcomeWord(RunRecord::Outcome outcome);

private:
    asio::awaitable<void> recordOnStrand(RunRecord record, std::string fullLog);

    CopyTileStore& tileStore_;
    std::filesystem::path logDirectory_;
    BlockingPool& pool_;
    RunFinishedNotifier& notifier_;
    Options options_;
};

}  // namespace ql
