#pragma once

#include <tl/expected.hpp>

#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace ql {

// A volume appeared or went away: a block device attached or detached, a filesystem mounted or
// unmounted (local volumes, network shares, attached disk images alike).
struct VolumeEvent {
    enum class Kind { attached, detached, mounted, unmounted };
    Kind kind = Kind::attached;
    // attached/detached: the device name ("sdb1"); mounted/unmounted: the mount source
    // ("/dev/sdb1", "//nas/share").
    std::string device;
    std::string mountPoint;  // mounted/unmounted
    std::string fsType;      // mounted/unmounted

    friend bool operator==(const VolumeEvent&, const VolumeEvent&) = default;
};

// Tells its owner of volume appearance and disappearance; the owner looks at the system again
// to learn the rest.
class VolumeEventSource {
public:
    using Callback = std::function<void(VolumeEvent)>;
    virtual ~VolumeEventSource() = default;
    // `onEvent` is called from the source's own thread until `stop`. Fails with a sentence when
    // the platform offers no way to watch.
    virtual tl::expected<void, std::string> start(Callback onEvent) = 0;
    // No call of `onEvent` begins after it returns. Calling it twice is harmless.
    virtual void stop() = 0;
};

// Events only when a test sends them.
class FakeVolumeEventSource final : public VolumeEventSource {
public:
    tl::expected<void, std::string> start(Callback onEvent) override {
        std::lock_guard lock(mutex_);
        callback_ = std::move(onEvent);
        return {};
    }
    void stop() override {
        std::lock_guard lock(mutex_);
        callback_ = nullptr;
    }
    void emit(VolumeEvent event) {
        Callback callback;
        {
            std::lock_guard lock(mutex_);
            callback = callback_;
        }
        if (callback) callback(std::move(event));
    }

private:
    std::mutex mutex_;
    Callback callback_;
};

// Linux: the mount table (/proc/self/mountinfo, which signals every change with POLLPRI) and
// the block devices in /sys/class/block (re-read when the kernel announces a device event on
// its uevent socket, and every few seconds where that socket is not available: no udev daemon
// is needed). macOS: volume appearance comes from Disk Arbitration, which this build does not
// watch; `start` refuses with a sentence.
class LiveVolumeEventSource final : public VolumeEventSource {
public:
    struct Options {
        std::string mountInfo = "/proc/self/mountinfo";
        std::string blockDevices = "/sys/class/block";
        int rescanMilliseconds = 2000;
    };
    LiveVolumeEventSource();
    explicit LiveVolumeEventSource(Options options);
    ~LiveVolumeEventSource() override;

    tl::expected<void, std::string> start(Callback onEvent) override;
    void stop() override;

private:
    struct State;
    Options options_;
    std::shared_ptr<State> state_;
};

}  // namespace ql
