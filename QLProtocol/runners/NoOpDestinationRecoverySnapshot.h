#pragma once

#include "QLProtocol/runners/DestinationRecoverySnapshot.h"

namespace ql {

// For systems without local snapshots of arbitrary destination volumes: always `unavailable`,
// with the reason given at construction, so the run logs why no recovery snapshot was taken.
class NoOpDestinationRecoverySnapshot final : public DestinationRecoverySnapshot {
public:
    explicit NoOpDestinationRecoverySnapshot(std::string reason) : reason_(std::move(reason)) {}
    asio::awaitable<Outcome> take(std::string, std::shared_ptr<CommandControl>) override {
        co_return Outcome{Outcome::Kind::unavailable, reason_};
    }

private:
    std::string reason_;
};

}  // namespace ql
