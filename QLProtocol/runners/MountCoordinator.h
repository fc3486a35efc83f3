#pragma once

#include <asio.hpp>
#include <tl/expected.hpp>

#include <string>

namespace ql {

// Mounts the volumes a run needs and, afterwards, puts back what the run changed: a volume
// that was unmounted before the run is unmounted again, one that was already mounted (or that
// someone else mounted meanwhile) is left alone. Shared by every run; a run's sides are keyed
// "<run id>/source" and "<run id>/destination".
class MountCoordinator {
public:
    virtual ~MountCoordinator() = default;

    // Mounts the unmounted volume `bsdDevice` for a run's side and remembers that this run
    // mounted it. The mount path, or a sentence saying why it could not be mounted.
    virtual asio::awaitable<tl::expected<std::string, std::string>> mount(std::string sideKey, std::string bsdDevice) = 0;

    // Restores what the run `runKey` mounted (after success or failure alike).
    virtual asio::awaitable<void> cleanup(std::string runKey, bool succeeded) = 0;
};

}  // namespace ql
