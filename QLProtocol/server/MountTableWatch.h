#pragma once

#include <tl/expected.hpp>

#include <functional>
#include <string>

namespace ql {

// Tells its owner that the mount table changed (something was mounted, unmounted or remounted).
// It says only that something changed; the owner reads the table again to learn what. Several
// changes in quick succession may arrive as one call.
class MountTableWatch {
public:
    virtual ~MountTableWatch() = default;

    // Starts watching; `changed` is called from the watch's own context for every change until
    // `stop`. Fails with a sentence when the mount table can't be watched here.
    virtual tl::expected<void, std::string> start(std::function<void()> changed) = 0;
    // Stops watching; no call of `changed` begins after it returns. Calling it twice is harmless.
    virtual void stop() = 0;
};

// A watch that changes only when a test says so.
class FakeMountTableWatch final : public MountTableWatch {
public:
    tl::expected<void, std::string> start(std::function<void()> changed) override {
        changed_ = std::move(changed);
        ++starts_;
        return {};
    }
    void stop() override { changed_ = nullptr; }

    // Reports a change, as the live watch would.
    void fire() const {
        if (changed_) changed_();
    }
    bool running() const { return static_cast<bool>(changed_); }
    int starts() const { return starts_; }

private:
    std::function<void()> changed_;
    int starts_ = 0;
};

}  // namespace ql
