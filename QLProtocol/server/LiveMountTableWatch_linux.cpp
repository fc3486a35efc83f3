#include "QLProtocol/server/LiveMountTableWatch.h"

#include "QLSupport/Log.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>


namespace ql {

// Shared with the pending wait, so that a wait completing after `stop` finds the callback gone.
struct LiveMountTableWatch::State {
    explicit State(asio::any_io_executor executor) : descriptor(std::move(executor)) {}
    asio::posix::stream_descriptor descriptor;
    std::recursive_mutex mutex;
    std::function<void()> changed;
    bool stopped = false;

    void arm(std::shared_ptr<State> self) {
        descriptor.async_wait(asio::posix::stream_descriptor::wait_error, [self](std::error_code error) {
            // Held while calling back, so that no call begins once `stop` has returned.
            std::lock_guard lock(self->mutex);
            if (self->stopped || error == asio::error::operation_aborted) return;
            if (error) {
                Log::f("MountTableWatch", "waiting for mount-table changes failed: {}", error.message());
                return;
            }
            if (self->changed) self->changed();
            if (!self->stopped) self->arm(self);
        });
    }
};

LiveMountTableWatch::LiveMountTableWatch(asio::any_io_executor executor, std::string mountInfo)
    : executor_(std::move(executor)), mountInfo_(std::move(mountInfo)) {}

LiveMountTableWatch::~LiveMountTableWatch() { stop(); }

tl::expected<void, std::string> LiveMountTableWatch::start(std::function<void()> changed) {
    stop();
    int fd = ::open(mountInfo_.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return tl::unexpected("could not open the mount table " + mountInfo_ + " to watch it: " + std::strerror(errno));
    }
    auto state = std::make_shared<State>(executor_);
    std::error_code error;
    state->descriptor.assign(fd, error);
    if (error) {
        ::close(fd);
        return tl::unexpected("could not watch the mount table " + mountInfo_ + ": " + error.message());
    }
    state->changed = std::move(changed);
    state_ = state;
    asio::post(executor_, [state] {
        std::lock_guard lock(state->mutex);
        if (!state->stopped) state->arm(state);
    });
    return {};
}

void LiveMountTableWatch::stop() {
    auto state = std::move(state_);
    if (!state) return;
    std::lock_guard lock(state->mutex);
    state->stopped = true;
    state->changed = nullptr;
    // Closing from another thread than the executor's is safe for a descriptor with a pending
    // wait: the wait completes with operation_aborted.
    asio::post(state->descriptor.get_executor(), [state] {
        std::error_code ignored;
        state->descriptor.close(ignored);
    });
}

}  // namespace ql
