#pragma once

#include "QLProtocol/proto/runs.pb.h"
#include "QLProtocol/server/JobRunner.h"

#include <string>

namespace ql {

// The runner for a kind of copy this build cannot perform: its stream carries one `failed`
// event with a sentence saying so, and ends. Nothing is touched.
class UnavailableJobRunner final : public JobRunner {
public:
    UnavailableJobRunner(std::string message, ql4::transport::v1::RunId runID);

    Events::Consumer run() override;
    asio::awaitable<void> cancel() override { co_return; }
    asio::awaitable<bool> pause() override { co_return false; }
    asio::awaitable<bool> resume() override { co_return false; }

private:
    std::string message_;
    ql4::transport::v1::RunId runID_;
};

}  // namespace ql
