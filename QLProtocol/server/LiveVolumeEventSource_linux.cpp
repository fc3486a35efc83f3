#include "QLProtocol/server/VolumeEventSource.h"

#include "QLSupport/Log.h"

#include <fcntl.h>
#include <libmount/libmount.h>
#include <linux/netlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>
#include <thread>

namespace ql {
namespace {

constexpr std::string_view tag = "VolumeEvents";

struct Mount {
    std::string source;
    std::string fsType;
    friend bool operator==(const Mount&, const Mount&) = default;
};

// mount point → what is mounted there (the last mount on a point is the visible one).
std::map<std::string, Mount> readMounts(const std::string& path) {
    std::map<std::string, Mount> mounts;
    libmnt_table* table = mnt_new_table_from_file(path.c_str());
    if (table == nullptr) return mounts;
    libmnt_iter* iterator = mnt_new_iter(MNT_ITER_FORWARD);
    libmnt_fs* fs = nullptr;
    while (iterator != nullptr && mnt_table_next_fs(table, iterator, &fs) == 0) {
        const char* target = mnt_fs_get_target(fs);
        if (target == nullptr) continue;
        const char* source = mnt_fs_get_source(fs);
        const char* type = mnt_fs_get_fstype(fs);
        mounts[target] = Mount{source ? source : "", type ? type : ""};
    }
    mnt_free_iter(iterator);
    mnt_unref_table(table);
    return mounts;
}

// Consumes the change notification so that the next poll waits for the next change.
void drain(int fd) {
    char buffer[16384];
    if (::lseek(fd, 0, SEEK_SET) < 0) return;
    while (::read(fd, buffer, sizeof buffer) > 0) {
    }
}

std::set<std::string> listBlockDevices(const std::string& directory) {
    std::set<std::string> names;
    std::error_code error;
    for (std::filesystem::directory_iterator it(directory, error), end; !error && it != end; it.increment(error)) {
        names.insert(it->path().filename().string());
    }
    return names;
}

}  // namespace

struct LiveVolumeEventSource::State {
    std::thread thread;
    int wake[2] = {-1, -1};
    std::atomic<bool> running{false};
    ~State() {
        for (int fd : wake) {
            if (fd >= 0) ::close(fd);
        }
    }
};

LiveVolumeEventSource::LiveVolumeEventSource() : LiveVolumeEventSource(Options{}) {}
LiveVolumeEventSource::LiveVolumeEventSource(Options options) : options_(std::move(options)) {}
LiveVolumeEventSource::~LiveVolumeEventSource() { stop(); }

tl::expected<void, std::string> LiveVolumeEventSource::start(Callback onEvent) {
    if (state_) return tl::unexpected(std::string("the volume watch is already running"));
    int mountFd = ::open(options_.mountInfo.c_str(), O_RDONLY | O_CLOEXEC);
    if (mountFd < 0) {
        return tl::unexpected("Could not open " + options_.mountInfo + " to watch mounts: " + std::strerror(errno) + ".");
    }
    auto state = std::make_shared<State>();
    if (::pipe2(state->wake, O_CLOEXEC | O_NONBLOCK) != 0) {
        ::close(mountFd);
        return tl::unexpected(std::string("Could not create the volume watch's wake-up pipe: ") + std::strerror(errno) + ".");
    }
    // The kernel's device announcements; without them (no permission, a container's network
    // namespace) the block devices are re-read on a timer.
    int ueventFd = ::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_KOBJECT_UEVENT);
    if (ueventFd >= 0) {
        sockaddr_nl address{};
        address.nl_family = AF_NETLINK;
        address.nl_groups = 1;
        if (::bind(ueventFd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            ::close(ueventFd);
            ueventFd = -1;
        }
    }
    Log::f(tag, "watching {} and {} ({})", options_.mountInfo, options_.blockDevices,
           ueventFd >= 0 ? "kernel device events" : "re-read every few seconds");

    state->running = true;
    state_ = state;
    state->thread = std::thread([state, options = options_, onEvent = std::move(onEvent), mountFd, ueventFd] {
        drain(mountFd);
        auto mounts = readMounts(options.mountInfo);
        auto devices = listBlockDevices(options.blockDevices);
        while (state->running) {
            pollfd fds[3] = {{mountFd, POLLPRI, 0}, {state->wake[0], POLLIN, 0}, {ueventFd, POLLIN, 0}};
            int n = ::poll(fds, ueventFd >= 0 ? 3 : 2, options.rescanMilliseconds);
            if (n < 0 && errno != EINTR) break;
            if (!state->running) break;
            if (ueventFd >= 0 && (fds[2].revents & POLLIN)) {
                char buffer[8192];
                while (::recv(ueventFd, buffer, sizeof buffer, 0) > 0) {
                }
            }
            const auto nowDevices = listBlockDevices(options.blockDevices);
            for (const auto& name : nowDevices) {
                if (!devices.count(name)) onEvent(VolumeEvent{VolumeEvent::Kind::attached, name, {}, {}});
            }
            for (const auto& name : devices) {
                if (!nowDevices.count(name)) onEvent(VolumeEvent{VolumeEvent::Kind::detached, name, {}, {}});
            }
            devices = nowDevices;
            if (fds[0].revents & (POLLPRI | POLLERR)) {
                drain(mountFd);
                auto nowMounts = readMounts(options.mountInfo);
                for (const auto& [point, mount] : nowMounts) {
                    auto before = mounts.find(point);
                    if (before != mounts.end() && before->second == mount) continue;
                    if (before != mounts.end()) {
                        onEvent(VolumeEvent{VolumeEvent::Kind::unmounted, before->second.source, point,
                                            before->second.fsType});
                    }
                    onEvent(VolumeEvent{VolumeEvent::Kind::mounted, mount.source, point, mount.fsType});
                }
                for (const auto& [point, mount] : mounts) {
                    if (!nowMounts.count(point)) {
                        onEvent(VolumeEvent{VolumeEvent::Kind::unmounted, mount.source, point, mount.fsType});
                    }
                }
                mounts = std::move(nowMounts);
            }
        }
        ::close(mountFd);
        if (ueventFd >= 0) ::close(ueventFd);
    });
    return {};
}

void LiveVolumeEventSource::stop() {
    auto state = std::move(state_);
    if (!state) return;
    state->running = false;
    const char byte = 1;
    (void)::write(state->wake[1], &byte, 1);
    if (state->thread.joinable()) {
        if (state->thread.get_id() == std::this_thread::get_id()) {
            state->thread.detach();
        } else {
            state->thread.join();
        }
    }
}

}  // namespace ql
