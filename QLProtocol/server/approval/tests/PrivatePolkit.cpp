#include "QLProtocol/server/approval/tests/PrivatePolkit.h"

#include "QLProtocol/server/approval/LivePolkitApproval.h"

#include <fmt/format.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <system_error>
#include <thread>

extern char** environ;

namespace ql::testing {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr const char* kShell = "/bin/sh";
constexpr const char* kDbusDaemon = "/usr/bin/dbus-daemon";
constexpr const char* kPolkitd = "/usr/lib/polkit-1/polkitd";
constexpr const char* kUnshare = "/usr/bin/unshare";
constexpr const char* kSetpriv = "/usr/bin/setpriv";
constexpr const char* kUseradd = "/usr/sbin/useradd";
constexpr const char* kSleep = "/bin/sleep";
// Where polkitd looks for actions and rules; each is covered by a bind mount in its namespace.
constexpr const char* kActionsFolder = "/usr/share/polkit-1/actions";
constexpr const char* kAdminRulesFolder = "/etc/polkit-1/rules.d";
constexpr const char* kVendorRulesFolder = "/usr/share/polkit-1/rules.d";

// A system-bus-like configuration that lets every user connect and allows every message, with
// the ownership of polkit's name spelled out for the polkitd user as on a real system bus.
std::string busConfig(const fs::path& socket) {
    return fmt::format(R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path={}</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
  </policy>
  <policy user="polkitd">
    <allow own="org.freedesktop.PolicyKit1"/>
  </policy>
</busconfig>
)",
                       socket.string());
}

void writeFile(const fs::path& path, const std::string& text) {
    std::ofstream out(path, std::ios::trunc);
    out << text;
    if (!out.flush()) throw std::system_error(errno, std::generic_category(), "writing " + path.string());
    fs::permissions(path, fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read |
                              fs::perms::others_read);
}

void makeTraversable(const fs::path& folder) {
    fs::create_directories(folder);
    fs::permissions(folder, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                                fs::perms::others_read | fs::perms::others_exec);
}

std::string readFile(const fs::path& path) {
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// Our environment with `name` set to `value`.
std::vector<std::string> environmentWith(const std::string& name, const std::string& value) {
    std::vector<std::string> result;
    const std::string prefix = name + "=";
    for (char** entry = environ; *entry != nullptr; ++entry) {
        if (!std::string_view(*entry).starts_with(prefix)) result.emplace_back(*entry);
    }
    result.push_back(prefix + value);
    return result;
}

std::string quoted(const std::string& text) {
    std::string out = "'";
    for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

// Starts `executable` under `setpriv --pdeathsig KILL`, so that it dies with the test process
// even when that process crashes and never runs its destructors. setpriv execs the program,
// so the pid is the program's.
tl::expected<PosixSpawnedProcess, PosixSpawnedProcess::SpawnError> spawnTiedToUs(
    const std::string& executable, std::vector<std::string> arguments, PosixSpawnedProcess::Options options,
    std::vector<std::string> setprivOptions = {}) {
    std::vector<std::string> all{"--pdeathsig", "KILL"};
    all.insert(all.end(), setprivOptions.begin(), setprivOptions.end());
    all.push_back(executable);
    all.insert(all.end(), arguments.begin(), arguments.end());
    options.eventPipe = false;
    return PosixSpawnedProcess::spawn(kSetpriv, all, options);
}

std::string spawnErrorText(const PosixSpawnedProcess::SpawnError& error) { return error.message(); }

struct BusCloser {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};

// Whether `name` has an owner on the bus at `address`; nothing when the bus can't be asked.
std::optional<bool> nameHasOwner(const std::string& address, const char* name) {
    sd_bus* raw = nullptr;
    if (sd_bus_new(&raw) < 0) return std::nullopt;
    std::unique_ptr<sd_bus, BusCloser> bus(raw);
    if (sd_bus_set_address(bus.get(), address.c_str()) < 0 || sd_bus_set_bus_client(bus.get(), 1) < 0 ||
        sd_bus_start(bus.get()) < 0) {
        return std::nullopt;
    }
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    int r = sd_bus_call_method(bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                               "NameHasOwner", &error, &reply, "s", name);
    int has = 0;
    if (r >= 0) r = sd_bus_message_read(reply, "b", &has);
    sd_bus_message_unref(reply);
    sd_bus_error_free(&error);
    if (r < 0) return std::nullopt;
    return has != 0;
}

}  // namespace

std::optional<std::string> PrivatePolkit::unavailableReason() {
    if (::geteuid() != 0) return "needs root: polkitd runs in a private mount namespace and takes subjects from root";
    for (const char* tool : {kShell, kDbusDaemon, kPolkitd, kUnshare, kSetpriv, kSleep}) {
        if (::access(tool, X_OK) != 0) {
            return fmt::format("{} is missing (scripts/bootstrap.sh installs dbus-daemon and polkitd)", tool);
        }
    }
    for (const char* folder : {kActionsFolder, kAdminRulesFolder, kVendorRulesFolder}) {
        if (!fs::is_directory(folder)) return fmt::format("{} is missing, so polkitd's folders can't be replaced", folder);
    }
    if (::getpwnam("polkitd") == nullptr) return std::string("the polkitd user is missing");
    if (std::system("/usr/bin/unshare --mount --propagation private /bin/true >/dev/null 2>&1") != 0) {
        return std::string("this machine doesn't allow a private mount namespace (unshare --mount failed)");
    }
    return std::nullopt;
}

PrivatePolkit::PrivatePolkit(Options options) {
    std::string pattern = (fs::temp_directory_path() / "ql-polkit-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        error_ = fmt::format("mkdtemp failed: {}", std::strerror(errno));
        return;
    }
    directory_ = pattern;
    try {
        makeTraversable(directory_);
        makeTraversable(directory_ / "actions");
        makeTraversable(directory_ / "rules");
        makeTraversable(directory_ / "rules-vendor");
        for (const auto& file : options.actionFiles) {
            fs::copy_file(file, directory_ / "actions" / file.filename());
            fs::permissions(directory_ / "actions" / file.filename(),
                            fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read | fs::perms::others_read);
        }
        if (options.rules) writeFile(directory_ / "rules" / "50-quillo-test.rules", *options.rules);
        writeFile(directory_ / "bus.conf", busConfig(directory_ / "bus.sock"));
    } catch (const std::exception& e) {
        error_ = fmt::format("preparing {} failed: {}", directory_.string(), e.what());
        return;
    }
    error_ = startBus(options.startTimeout);
    if (error_.empty() && options.startPolkitd) error_ = startPolkitd(options.startTimeout);
}

PrivatePolkit::~PrivatePolkit() {
    stop(polkitd_);
    stop(bus_);
    if (!directory_.empty()) {
        std::error_code ignored;
        fs::remove_all(directory_, ignored);
    }
}

std::string PrivatePolkit::polkitdLog() const { return readFile(directory_ / "polkitd.log"); }

std::string PrivatePolkit::startBus(std::chrono::milliseconds timeout) {
    // dbus-daemon prints its address once it listens; its own messages go to a file.
    const std::string script = fmt::format("exec {} --config-file={} --print-address --nofork 2>>{}", kDbusDaemon,
                                           quoted((directory_ / "bus.conf").string()),
                                           quoted((directory_ / "dbus-daemon.log").string()));
    auto spawned = spawnTiedToUs(kShell, {"-c", script}, {});
    if (!spawned) return "starting dbus-daemon failed: " + spawnErrorText(spawned.error());
    bus_.emplace(std::move(*spawned));

    std::string printed;
    const auto deadline = Clock::now() + timeout;
    while (printed.find('\n') == std::string::npos) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) return "dbus-daemon printed no address in time; it said: " + readFile(directory_ / "dbus-daemon.log");
        pollfd watched{bus_->stdoutHandle.get(), POLLIN, 0};
        const int ready = ::poll(&watched, 1, static_cast<int>(left));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) continue;
        char buffer[256];
        const ssize_t n = ::read(bus_->stdoutHandle.get(), buffer, sizeof buffer);
        if (n <= 0) return "dbus-daemon ended before listening; it said: " + readFile(directory_ / "dbus-daemon.log");
        printed.append(buffer, static_cast<std::size_t>(n));
    }
    busAddress_ = fmt::format("unix:path={}", (directory_ / "bus.sock").string());
    return {};
}

std::string PrivatePolkit::startPolkitd(std::chrono::milliseconds timeout) {
    // The bind mounts exist only in the new namespace and vanish with polkitd, the namespace's
    // only process (the shell execs it). polkitd changes user, which clears the parent-death
    // signal, but it ends by itself when its bus goes away.
    const std::string script = fmt::format(
        "mount --bind {0}/actions {1} && mount --bind {0}/rules {2} && mount --bind {0}/rules-vendor {3} && "
        "exec {4} >>{0}/polkitd.log 2>&1",
        quoted(directory_.string()), kActionsFolder, kAdminRulesFolder, kVendorRulesFolder, kPolkitd);
    PosixSpawnedProcess::Options spawnOptions;
    spawnOptions.environment = environmentWith("DBUS_SYSTEM_BUS_ADDRESS", busAddress_);
    auto spawned = spawnTiedToUs(kUnshare, {"--mount", "--propagation", "private", kShell, "-c", script}, spawnOptions);
    if (!spawned) return "starting polkitd failed: " + spawnErrorText(spawned.error());
    polkitd_.emplace(std::move(*spawned));

    const auto deadline = Clock::now() + timeout;
    while (Clock::now() < deadline) {
        if (nameHasOwner(busAddress_, "org.freedesktop.PolicyKit1") == true) return {};
        auto ended = polkitd_->tryWait();
        if (ended && ended->has_value()) {
            return fmt::format("polkitd ended (exit code {}) before taking its bus name; it said: {}",
                               (*ended)->code, polkitdLog());
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return "polkitd did not take its bus name in time; it said: " + polkitdLog();
}

void PrivatePolkit::stop(std::optional<PosixSpawnedProcess>& process) {
    if (!process || process->pid <= 0 || process->reaped()) return;
    (void)process->sendSignal(SIGTERM);
    const auto deadline = Clock::now() + std::chrono::seconds(5);
    while (Clock::now() < deadline) {
        auto ended = process->tryWait();
        if (!ended || ended->has_value()) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    (void)process->kill();
    (void)process->wait();
}

ScopedEnvironment::ScopedEnvironment(std::string name, const std::string& value) : name_(std::move(name)) {
    if (const char* old = std::getenv(name_.c_str())) previous_ = old;
    ::setenv(name_.c_str(), value.c_str(), 1);
}

ScopedEnvironment::~ScopedEnvironment() {
    if (previous_) {
        ::setenv(name_.c_str(), previous_->c_str(), 1);
    } else {
        ::unsetenv(name_.c_str());
    }
}

tl::expected<TestUser, std::string> ensureTestUser(const std::string& name) {
    auto lookUp = [&]() -> std::optional<TestUser> {
        const passwd* entry = ::getpwnam(name.c_str());
        if (entry == nullptr) return std::nullopt;
        return TestUser{name, entry->pw_uid, entry->pw_gid};
    };
    if (auto user = lookUp()) return *user;
    PosixSpawnedProcess::Options spawnOptions;
    spawnOptions.eventPipe = false;
    auto useradd = PosixSpawnedProcess::spawn(kUseradd, {"--system", "--no-create-home", name}, spawnOptions);
    if (!useradd) return tl::unexpected("useradd couldn't start: " + spawnErrorText(useradd.error()));
    auto status = useradd->wait();
    if (!status || status->code != 0) return tl::unexpected(fmt::format("useradd {} failed", name));
    if (auto user = lookUp()) return *user;
    return tl::unexpected(fmt::format("useradd made no user {}", name));
}

std::optional<std::uint64_t> processStartTime(pid_t pid) {
    return procfs::startTimeFromStat(readFile(fs::path("/proc") / std::to_string(pid) / "stat"));
}

ApprovalSubject subjectOfThisProcess() {
    return {static_cast<std::uint32_t>(::getuid()), static_cast<std::int32_t>(::getpid()),
            processStartTime(::getpid()).value_or(0)};
}

tl::expected<ProcessAsUser, std::string> ProcessAsUser::start(const TestUser& user) {
    auto spawned = spawnTiedToUs(
        kSleep, {"60"}, {},
        {fmt::format("--reuid={}", user.uid), fmt::format("--regid={}", user.gid), "--init-groups"});
    if (!spawned) return tl::unexpected("setpriv couldn't start: " + spawnErrorText(spawned.error()));
    const pid_t pid = spawned->pid;
    ProcessAsUser process(std::move(*spawned), {});

    // setpriv changes user and then execs sleep in the same process; wait until it has.
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    while (Clock::now() < deadline) {
        const fs::path proc = fs::path("/proc") / std::to_string(pid);
        if (procfs::realUidFromStatus(readFile(proc / "status")) == user.uid && readFile(proc / "comm") == "sleep\n") {
            auto started = processStartTime(pid);
            if (!started) break;
            process.subject_ = {static_cast<std::uint32_t>(user.uid), static_cast<std::int32_t>(pid), *started};
            return process;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return tl::unexpected(fmt::format("the process for {} never ran as uid {}", user.name, user.uid));
}

ProcessAsUser::~ProcessAsUser() {
    if (!process_ || process_->pid <= 0 || process_->reaped()) return;
    (void)process_->kill();
    (void)process_->wait();
}

}  // namespace ql::testing
