// Helpers of the source-service tests: an event loop on a background thread and volume
// summaries built in one line.
#pragma once

#include "QLProtocol/server/ListedVolume.h"

#include <asio.hpp>

#include <chrono>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>

namespace ql::testing {

// An io_context run by one background thread for as long as the loop lives.
class SourceTestLoop {
public:
    SourceTestLoop() : guard_(asio::make_work_guard(context_)), thread_([this] { context_.run(); }) {}
    ~SourceTestLoop() {
        guard_.reset();
        context_.stop();
        thread_.join();
    }
    SourceTestLoop(const SourceTestLoop&) = delete;
    SourceTestLoop& operator=(const SourceTestLoop&) = delete;

    asio::any_io_executor executor() { return context_.get_executor(); }

    template <typename T>
    T run(asio::awaitable<T> operation, std::chrono::milliseconds limit = std::chrono::seconds{10}) {
        auto future = asio::co_spawn(context_, std::move(operation), asio::use_future);
        if (future.wait_for(limit) != std::future_status::ready) throw std::runtime_error("timed out");
        return future.get();
    }

private:
    asio::io_context context_;
    asio::executor_work_guard<asio::io_context::executor_type> guard_;
    std::thread thread_;
};

inline ListedVolume listedVolume(std::string name, std::string mount, std::string device, std::string uuid = {},
                                 std::string fsType = "ext4") {
    ListedVolume v;
    v.summary.set_name(std::move(name));
    v.summary.set_mount_point(std::move(mount));
    v.summary.set_bsd_device(std::move(device));
    v.summary.set_volume_uuid(std::move(uuid));
    v.summary.set_is_attached(true);
    v.fsType = std::move(fsType);
    return v;
}

}  // namespace ql::testing
