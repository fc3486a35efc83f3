#include "QLProtocol/server/approval/LivePolkitApproval.h"

#include "QLSupport/Log.h"

#include <fmt/format.h>
#include <systemd/sd-bus.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>

namespace ql {
namespace {

constexpr const char* kTag = "approval";

constexpr const char* kPolkitName = "org.freedesktop.PolicyKit1";
constexpr const char* kAuthorityPath = "/org/freedesktop/PolicyKit1/Authority";
constexpr const char* kAuthorityInterface = "org.freedesktop.PolicyKit1.Authority";
// CheckAuthorization's flag that lets polkit ask someone to authenticate.
constexpr std::uint32_t kAllowUserInteraction = 1;

constexpr const char* kCannotAsk = "Quillo couldn’t ask for an administrator’s approval: ";

// The verdict and, for the log, what polkit or the bus actually said.
struct Outcome {
    ApprovalVerdict verdict;
    std::string why;
};

struct BusCloser {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
struct MessageUnref {
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using Bus = std::unique_ptr<sd_bus, BusCloser>;
using Message = std::unique_ptr<sd_bus_message, MessageUnref>;

class BusError {
public:
    BusError() = default;
    ~BusError() { sd_bus_error_free(&error_); }
    BusError(const BusError&) = delete;
    BusError& operator=(const BusError&) = delete;

    sd_bus_error* get() { return &error_; }
    bool isSet() const { return sd_bus_error_is_set(&error_) > 0; }
    bool has(const char* name) const { return sd_bus_error_has_name(&error_, name) > 0; }
    std::string text(int code) const {
        if (!isSet()) return std::strerror(-code);
        return fmt::format("{}: {}", error_.name, error_.message != nullptr ? error_.message : "");
    }
    std::string message(int code) const {
        if (!isSet() || error_.message == nullptr || *error_.message == '\0') return std::strerror(-code);
        return error_.message;
    }

private:
    sd_bus_error error_ = SD_BUS_ERROR_NULL;
};

std::optional<std::string> readProcFile(std::int32_t pid, const char* name) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/" + name);
    if (!in) return std::nullopt;
    std::ostringstream text;
    text << in.rdbuf();
    if (in.bad()) return std::nullopt;
    return text.str();
}

// Nothing when /proc shows the subject as given; otherwise the reason it doesn't.
std::optional<std::string> subjectMismatch(const ApprovalSubject& subject) {
    if (subject.pid <= 0) return fmt::format("pid {} is not a process", subject.pid);
    if (subject.processStartTime == 0) return std::string("the process's start time is unknown");
    auto startTime = [&]() -> std::optional<std::uint64_t> {
        auto stat = readProcFile(subject.pid, "stat");
        return stat ? procfs::startTimeFromStat(*stat) : std::nullopt;
    };
    auto before = startTime();
    if (!before) return fmt::format("process {} has ended", subject.pid);
    if (*before != subject.processStartTime) {
        return fmt::format("process {} started at tick {}, not {}: the pid was reused", subject.pid, *before,
                           subject.processStartTime);
    }
    auto status = readProcFile(subject.pid, "status");
    auto uid = status ? procfs::realUidFromStatus(*status) : std::nullopt;
    // Read the start time again: the uid read above must belong to the same process.
    if (!uid || startTime() != before) return fmt::format("process {} has ended", subject.pid);
    if (*uid != subject.uid) return fmt::format("process {} runs as uid {}, not {}", subject.pid, *uid, subject.uid);
    return std::nullopt;
}

// "1 second", "120 seconds", "1.5 seconds".
std::string durationText(std::chrono::milliseconds duration) {
    if (duration.count() % 1000 != 0) return fmt::format("{:.1f} seconds", static_cast<double>(duration.count()) / 1000);
    const auto seconds = duration.count() / 1000;
    return fmt::format("{} second{}", seconds, seconds == 1 ? "" : "s");
}

std::string deniedSentence(bool challenge, bool dismissed, bool allowUserInteraction) {
    if (dismissed) return "The request for an administrator’s approval was dismissed, so Quillo won’t copy as administrator.";
    if (challenge && allowUserInteraction) {
        return "Copying as administrator needs an administrator’s password, and there was no authentication agent "
               "to ask for it.";
    }
    if (challenge) return "Copying as administrator needs an administrator’s password, and this request couldn’t ask for one.";
    return "The system’s authorization policy doesn’t let you copy as administrator.";
}

Outcome askPolkit(const ApprovalSubject& subject, const std::string& actionID, bool allowUserInteraction,
                  std::chrono::milliseconds timeout) {
    if (auto mismatch = subjectMismatch(subject)) {
        return {ApprovalVerdict::denied("The process asking to copy as administrator has ended or isn’t the one that "
                                        "connected, so no approval was asked for."),
                "subject refused before asking polkit: " + *mismatch};
    }

    sd_bus* opened = nullptr;
    int r = sd_bus_open_system(&opened);
    Bus bus(opened);
    if (r < 0) {
        return {ApprovalVerdict::unavailable(fmt::format("{}the system bus can’t be reached ({}).", kCannotAsk,
                                                         std::strerror(-r))),
                fmt::format("no system bus: {}", std::strerror(-r))};
    }

    sd_bus_message* made = nullptr;
    r = sd_bus_message_new_method_call(bus.get(), &made, kPolkitName, kAuthorityPath, kAuthorityInterface,
                                       "CheckAuthorization");
    Message call(made);
    if (r >= 0) {
        // CheckAuthorization(subject (sa{sv}), action_id s, details a{ss}, flags u, cancellation_id s)
        r = sd_bus_message_append(call.get(), "(sa{sv})sa{ss}us", "unix-process", 3,                  //
                                  "pid", "u", static_cast<std::uint32_t>(subject.pid),                 //
                                  "start-time", "t", static_cast<std::uint64_t>(subject.processStartTime),  //
                                  "uid", "i", static_cast<std::int32_t>(subject.uid),                  //
                                  actionID.c_str(), 0, allowUserInteraction ? kAllowUserInteraction : 0u, "");
    }
    if (r < 0) {
        return {ApprovalVerdict::unavailable(fmt::format("{}the request couldn’t be built ({}).", kCannotAsk,
                                                         std::strerror(-r))),
                fmt::format("building the CheckAuthorization call failed: {}", std::strerror(-r))};
    }

    BusError error;
    sd_bus_message* answered = nullptr;
    const auto usec = static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(timeout).count());
    r = sd_bus_call(bus.get(), call.get(), usec, error.get(), &answered);
    Message reply(answered);
    if (r < 0) {
        const std::string said = error.text(r);
        if (r == -ETIMEDOUT || error.has(SD_BUS_ERROR_TIMEOUT) || error.has(SD_BUS_ERROR_NO_REPLY)) {
            return {ApprovalVerdict::unavailable(fmt::format(
                        "{}the system’s authorization service (polkit) did not answer within {}.", kCannotAsk,
                        durationText(timeout))),
                    "polkit timed out: " + said};
        }
        if (error.isSet() && std::string_view(error.get()->name).starts_with("org.freedesktop.PolicyKit1.Error.")) {
            return {ApprovalVerdict::unavailable(fmt::format(
                        "{}the system’s authorization service (polkit) refused the request ({}).", kCannotAsk,
                        error.message(r))),
                    "polkit refused: " + said};
        }
        return {ApprovalVerdict::unavailable(fmt::format(
                    "{}the system’s authorization service (polkit) did not answer ({}).", kCannotAsk, error.message(r))),
                "no answer: " + said};
    }

    // (bba{ss}): is_authorized, is_challenge, details
    int authorized = 0;
    int challenge = 0;
    std::map<std::string, std::string> details;
    r = sd_bus_message_enter_container(reply.get(), 'r', "bba{ss}");
    if (r >= 0) r = sd_bus_message_read(reply.get(), "bb", &authorized, &challenge);
    if (r >= 0) r = sd_bus_message_enter_container(reply.get(), 'a', "{ss}");
    while (r >= 0) {
        const char* key = nullptr;
        const char* value = nullptr;
        r = sd_bus_message_read(reply.get(), "{ss}", &key, &value);
        if (r <= 0) break;
        details[key] = value;
    }
    if (r >= 0) r = sd_bus_message_exit_container(reply.get());
    if (r >= 0) r = sd_bus_message_exit_container(reply.get());
    if (r < 0) {
        return {ApprovalVerdict::unavailable(fmt::format(
                    "{}the system’s authorization service (polkit) gave an answer Quillo doesn’t understand.",
                    kCannotAsk)),
                fmt::format("unreadable CheckAuthorization reply: {}", std::strerror(-r))};
    }

    std::string detailText;
    for (const auto& [key, value] : details) detailText += fmt::format(" {}={}", key, value);
    if (authorized) return {ApprovalVerdict::approved(), "polkit authorized" + detailText};
    const bool dismissed = details.contains("polkit.dismissed");
    return {ApprovalVerdict::denied(deniedSentence(challenge != 0, dismissed, allowUserInteraction)),
            fmt::format("polkit did not authorize{}{}", challenge ? " (authentication required)" : "", detailText)};
}

}  // namespace

asio::awaitable<ApprovalVerdict> LivePolkitApproval::check(ApprovalSubject subject, std::string actionID,
                                                           bool allowUserInteraction) {
    // A named closure: g++ 12 copies a closure temporary inside a co_await expression bytewise,
    // which corrupts the string it captured.
    auto ask = [subject, actionID, allowUserInteraction, timeout = options_.timeout] {
        return askPolkit(subject, actionID, allowUserInteraction, timeout);
    };
    Outcome outcome = co_await pool_.run(std::move(ask));
    Log::f(kTag, "uid {} (pid {}) asked for {}{}: {} — {}", subject.uid, subject.pid, actionID,
           allowUserInteraction ? " (interactive)" : "", describe(outcome.verdict.kind), outcome.why);
    co_return std::move(outcome.verdict);
}

std::unique_ptr<AdministratorApproval> makeLiveAdministratorApproval(BlockingPool& pool) {
    return std::make_unique<LivePolkitApproval>(pool);
}

namespace procfs {

std::optional<std::uint64_t> startTimeFromStat(std::string_view stat) {
    const auto close = stat.rfind(')');
    if (close == std::string_view::npos) return std::nullopt;
    // After ')' comes field 3 (the state); field 22 is 19 fields further on.
    std::string_view rest = stat.substr(close + 1);
    int field = 2;
    while (!rest.empty()) {
        const auto start = rest.find_first_not_of(' ');
        if (start == std::string_view::npos) break;
        rest.remove_prefix(start);
        const auto end = std::min(rest.find(' '), rest.size());
        ++field;
        if (field == 22) {
            std::string_view token = rest.substr(0, end);
            while (!token.empty() && token.back() == '\n') token.remove_suffix(1);
            std::uint64_t value = 0;
            auto [ptr, ec] = std::from_chars(token.data(), token.data() + token.size(), value);
            if (ec != std::errc() || ptr != token.data() + token.size() || token.empty()) return std::nullopt;
            return value;
        }
        rest.remove_prefix(end);
    }
    return std::nullopt;
}

std::optional<std::uint32_t> realUidFromStatus(std::string_view status) {
    std::size_t lineStart = 0;
    while (lineStart < status.size()) {
        const auto lineEnd = std::min(status.find('\n', lineStart), status.size());
        std::string_view line = status.substr(lineStart, lineEnd - lineStart);
        if (line.starts_with("Uid:")) {
            line.remove_prefix(4);
            const auto digits = line.find_first_not_of(" \t");
            if (digits == std::string_view::npos) return std::nullopt;
            line.remove_prefix(digits);
            std::uint32_t uid = 0;
            auto [ptr, ec] = std::from_chars(line.data(), line.data() + line.size(), uid);
            if (ec != std::errc() || ptr == line.data()) return std::nullopt;
            if (ptr != line.data() + line.size() && *ptr != ' ' && *ptr != '\t') return std::nullopt;
            return uid;
        }
        lineStart = lineEnd + 1;
    }
    return std::nullopt;
}

}  // namespace procfs
}  // namespace ql
