#pragma once

#include "QLSupport/ShellRunner.h"

#include <asio.hpp>

#include <memory>
#include <string>

namespace ql {

// A local snapshot of the destination volume taken just before a copy writes to it, so that
// the state before the run can be recovered; the system thins such snapshots by itself.
class DestinationRecoverySnapshot {
public:
    struct Outcome {
        enum class Kind { taken, declined, unavailable };
        Kind kind = Kind::unavailable;
        std::string detail;  // declined: what the tool said; unavailable: why
    };

    virtual ~DestinationRecoverySnapshot() = default;

    // `control` lets a cancel stop a running tool.
    virtual asio::awaitable<Outcome> take(std::string mountPath, std::shared_ptr<CommandControl> control) = 0;
};

}  // namespace ql
