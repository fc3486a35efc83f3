#pragma once

#include "QLProtocol/proto/runs.pb.h"

#include <asio.hpp>

#include <string>

namespace ql {

// Matches the user session's answers (unlock, encryption passphrase, network connect) to the
// runs waiting for them. The copy service posts answers; the job manager stops a run's waiters
// when the run ends.
class UnlockResultMailbox {
public:
    virtual ~UnlockResultMailbox() = default;
    // Hands an answer over; false when it could not be taken (no such run, or the run ended).
    virtual asio::awaitable<bool> post(ql4::transport::v1::UnlockResultRequest answer) = 0;
    // The run (16 raw id bytes) has ended: its waiters are told, later answers dropped.
    virtual asio::awaitable<void> stop(std::string runID) = 0;
};

// Takes no answers: nothing in this server waits for one.
class NoOpUnlockResultMailbox final : public UnlockResultMailbox {
public:
    asio::awaitable<bool> post(ql4::transport::v1::UnlockResultRequest) override { co_return false; }
    asio::awaitable<void> stop(std::string) override { co_return; }
};

}  // namespace ql
