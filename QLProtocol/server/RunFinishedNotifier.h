#pragma once

#include "QLSupport/ShellRunner.h"

#include <asio.hpp>

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ql {

// The application's reverse-DNS identifier, from which system-wide names are built.
inline constexpr std::string_view defaultAppIdentifier = "com.ortolan.Quillo4";

// What the ".runFinished" notification tells the user session about one run.
struct RunFinishedNotice {
    std::string tileID;
    std::string outcome;  // "succeeded", "failed", "cancelled", "wrong_drive", "destination_not_connected"
    bool isCatchup = false;
    std::int64_t endedAtUnixNanos = 0;
    // For a run that could not start: "source_not_connected" or "destination_not_connected".
    std::optional<std::string> reason;

    // The version of this user-info layout.
    static constexpr int version = 1;

    // Key/value pairs in a fixed order: tile_id, version, outcome, is_catchup,
    // ended_at_unix_nanos, and reason when present.
    std::vector<std::pair<std::string, std::string>> userInfo() const;

    friend bool operator==(const RunFinishedNotice&, const RunFinishedNotice&) = default;
};

// Posts AppIdentifier + ".runFinished" to the user session after each run. Never fails the
// caller: a notification that cannot be posted is logged and dropped.
class RunFinishedNotifier {
public:
    virtual ~RunFinishedNotifier() = default;
    virtual asio::awaitable<void> post(RunFinishedNotice notice) = 0;
};

class NoOpRunFinishedNotifier final : public RunFinishedNotifier {
public:
    asio::awaitable<void> post(RunFinishedNotice) override { co_return; }
};

class FakeRunFinishedNotifier final : public RunFinishedNotifier {
public:
    asio::awaitable<void> post(RunFinishedNotice notice) override {
        std::lock_guard lock(mutex_);
        posted_.push_back(std::move(notice));
        co_return;
    }
    std::vector<RunFinishedNotice> posted() const {
        std::lock_guard lock(mutex_);
        return posted_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<RunFinishedNotice> posted_;
};

// macOS: a distributed notification. Linux: a D-Bus signal (interface = AppIdentifier, member
// "runFinished", object path built from AppIdentifier, one string→string dictionary argument),
// sent with dbus-send on the system bus when the server runs as root and on the session bus
// otherwise; when no bus or no dbus-send is reachable the notification is logged and skipped.
class LiveRunFinishedNotifier final : public RunFinishedNotifier {
public:
    struct Options {
        std::string appIdentifier = std::string(defaultAppIdentifier);
        // Where to look for the tool and the bus; injectable for tests.
        std::function<std::optional<std::string>(std::string_view)> environment;
        std::function<bool(const std::string&)> pathExists;
        bool systemBus = true;
    };

    LiveRunFinishedNotifier(ShellRunner& runner, Options options);
    explicit LiveRunFinishedNotifier(ShellRunner& runner);

    asio::awaitable<void> post(RunFinishedNotice notice) override;

    // The dbus-send command line for a notice on a reachable bus; nullopt (with the reason in
    // `whyNot`) when no bus or tool is reachable. Linux only; exposed for tests.
    std::optional<ShellCommand> dbusCommand(const RunFinishedNotice& notice, std::string& whyNot) const;

    static Options defaultOptions();

private:
    ShellRunner& runner_;
    Options options_;
};

}  // namespace ql
