#pragma once

#include "QLProtocol/proto/identity.pb.h"
#include "QLProtocol/server/PowerAction.h"

#include <asio.hpp>

#include <string>

namespace ql {

// Carries out the actions that must wait until runs have let go of the drives: ejecting a
// volume, disconnecting a network share a run connected, and a power action once no run is
// left. The job manager decides when; the executor decides how. Actions never fail a run: an
// executor logs what went wrong and gives up.
class DeferredActionExecutor {
public:
    virtual ~DeferredActionExecutor() = default;
    virtual asio::awaitable<void> eject(ql4::transport::v1::VolumeRef volume) = 0;
    virtual asio::awaitable<void> disconnect(std::string volumeUUID, std::string mountPath) = 0;
    virtual asio::awaitable<void> power(PowerAction action) = 0;
};

// Only logs what it was asked to do.
class NoOpDeferredActionExecutor final : public DeferredActionExecutor {
public:
    asio::awaitable<void> eject(ql4::transport::v1::VolumeRef volume) override;
    asio::awaitable<void> disconnect(std::string volumeUUID, std::string mountPath) override;
    asio::awaitable<void> power(PowerAction action) override;
};

}  // namespace ql
