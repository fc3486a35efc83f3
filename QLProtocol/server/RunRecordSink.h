#pragma once

#include "QLProtocol/proto/tiles.pb.h"

#include <asio.hpp>

#include <string>

namespace ql {

// Receives every finished run from the job manager's terminal chain: the record goes into the
// job's history (its `log_content` holds the whole run log; the sink decides how much of it the
// job keeps) and `fullLog` into a log file beside it. A sink logs its own failures; the run's
// stream is never affected by them.
class RunRecordSink {
public:
    virtual ~RunRecordSink() = default;
    virtual asio::awaitable<void> record(ql4::transport::v1::RunRecord record, std::string fullLog) = 0;
};

// Keeps nothing.
class NoOpRunRecordSink final : public RunRecordSink {
public:
    asio::awaitable<void> record(ql4::transport::v1::RunRecord, std::string) override { co_return; }
};

}  // namespace ql
