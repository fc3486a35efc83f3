#include "QLProtocol/server/LiveRunRecordSink.h"

#include "QLSupport/AtomicFile.h"
#include "QLSupport/Log.h"

#include <system_error>

namespace ql {
namespace {

constexpr std::string_view tag = "RunRecordSink";

// Keeps file names to letters, digits and a few marks, whatever an id holds.
std::string fileNamePart(const std::string& text) {
    std::string out;
    for (char c : text) {
        const bool plain = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
                           c == '_' || c == '.';
        out.push_back(plain ? c : '_');
    }
    if (out.empty() || out.front() == '.') out.insert(out.begin(), '_');
    return out;
}

}  // namespace

LiveRunRecordSink::LiveRunRecordSink(const Executor& executor, CopyTileStore& tileStore,
                                     std::filesystem::path logDirectory, BlockingPool& pool,
                                     RunFinishedNotifier& notifier, Options options)
    : Actor(executor),
      tileStore_(tileStore),
      logDirectory_(std::move(logDirectory)),
      pool_(pool),
      notifier_(notifier),
      options_(std::move(options)) {}

std::filesystem::path LiveRunRecordSink::sidecarPath(const std::string& tileID, const std::string& runID) const {
    return logDirectory_ / (fileNamePart(tileID) + "_" + fileNamePart(runID) + ".log");
}

std::string LiveRunRecordSink::outcomeWord(RunRecord::Outcome outcome) {
    switch (outcome) {
        case RunRecord::OUTCOME_SUCCEEDED: return "succeeded";
        case RunRecord::OUTCOME_FAILED: return "failed";
        case RunRecord::OUTCOME_CANCELLED: return "cancelled";
        case RunRecord::OUTCOME_WRONG_DRIVE: return "wrong_drive";
        case RunRecord::OUTCOME_DESTINATION_NOT_CONNECTED: return "destination_not_connected";
        default: return "unspecified";
    }
}

std::string LiveRunRecordSink::cappedLog(const std::string& fullLog, std::size_t cap,
                                         const std::optional<std::filesystem::path>& sidecar) {
    if (fullLog.size() <= cap) return fullLog;
    const std::string head = sidecar ? "[… earlier log omitted — full log: " + sidecar->string() + "]\n"
                                     : std::string("[… earlier log omitted — the full log could not be saved]\n");
    const std::size_t room = cap > head.size() ? cap - head.size() : 0;
    std::size_t start = fullLog.size() - std::min(room, fullLog.size());
    // Begin at a whole line when one starts inside the kept tail; otherwise at least at a whole
    // UTF-8 character.
    if (start > 0 && fullLog[start - 1] != '\n') {
        const auto newline = fullLog.find('\n', start);
        if (newline != std::string::npos && newline + 1 < fullLog.size()) {
            start = newline + 1;
        } else {
            while (start < fullLog.size() && (static_cast<unsigned char>(fullLog[start]) & 0xC0) == 0x80) ++start;
        }
    }
    return head + fullLog.substr(start);
}

asio::awaitable<void> LiveRunRecordSink::record(RunRecord record, std::string fullLog) {
    return serialized(recordOnStrand(std::move(record), std::move(fullLog)));
}

asio::awaitable<void> LiveRunRecordSink::recordOnStrand(RunRecord record, std::string fullLog) {
    const std::string runID = record.id();
    const std::string tileID = record.tile_id();

    // 1. The whole log beside the other logs.
    const auto sidecar = sidecarPath(tileID, runID);
    const auto directory = logDirectory_;
    auto logText = std::make_shared<const std::string>(fullLog);
    // A named closure: GCC 12 mishandles one that is a temporary of a co_await expression.
    auto writeSidecar = [directory, sidecar, logText]() -> std::string {
        std::error_code error;
        std::filesystem::create_directories(directory, error);
        if (error || !std::filesystem::is_directory(directory)) return "mkdir";
        if (auto result = AtomicFile::write(sidecar, *logText, 0644); !result) return result.error().message();
        return {};
    };
    auto written = co_await pool_.run(std::move(writeSidecar));
    std::optional<std::filesystem::path> kept;
    if (written == "mkdir") {
        Log::line(tag, "could not create " + directory.string() + " — sidecar log skipped for run " + runID);
    } else if (!written.empty()) {
        Log::line(tag, "write " + sidecar.string() + " failed: " + written);
    } else {
        kept = sidecar;
    }

    // 2 and 3. The history entry, with the log capped.
    record.set_log_content(cappedLog(fullLog, options_.logContentCap, kept));
    auto appended = co_await tileStore_.appendRunRecord(tileID, record, options_.retentionCap);
    if (!appended) {
        Log::line(tag, "tile store append failed for run " + runID + ": " + appended.error().message);
    }

    // 4. The user session hears of it.
    RunFinishedNotice notice;
    notice.tileID = tileID;
    notice.outcome = outcomeWord(record.outcome());
    notice.isCatchup = record.is_catchup();
    notice.endedAtUnixNanos = record.ended_at_unix_nanos();
    if (record.outcome() == RunRecord::OUTCOME_DESTINATION_NOT_CONNECTED) notice.reason = "destination_not_connected";
    try {
        co_await notifier_.post(notice);
    } catch (const std::exception& e) {
        Log::line(tag, "run-finished notification for run " + runID + " failed: " + e.what());
    }

    // 5. A failed run gets its diagnostics.
    if (record.outcome() == RunRecord::OUTCOME_FAILED && options_.failureDiagnostics) {
        try {
            co_await (*options_.failureDiagnostics)(record, fullLog);
        } catch (const std::exception& e) {
            Log::line(tag, "failure diagnostics for run " + runID + " failed: " + e.what());
        }
    }
    Log::line(tag, "recorded run " + runID + " of tile " + tileID + " (" + notice.outcome + ")");
}

asio::awaitable<void> LiveRunRecordSink::reportRefusedFire(std::string jobName, RunFinishedNotice notice) {
    Log::line("scheduled", "REFUSED fire for " + jobName);
    try {
        co_await notifier_.post(std::move(notice));
    } catch (const std::exception& e) {
        Log::line(tag, std::string("run-finished notification for a refused fire failed: ") + e.what());
    }
}

}  // namespace ql
