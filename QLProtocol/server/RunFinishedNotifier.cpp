#include "QLProtocol/server/RunFinishedNotifier.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

namespace ql {

std::vector<std::pair<std::string, std::string>> RunFinishedNotice::userInfo() const {
    std::vector<std::pair<std::string, std::string>> info{
        {"tile_id", tileID},
        {"version", std::to_string(version)},
        {"outcome", outcome},
        {"is_catchup", isCatchup ? "true" : "false"},
        {"ended_at_unix_nanos", std::to_string(endedAtUnixNanos)},
    };
    if (reason) info.emplace_back("reason", *reason);
    return info;
}

LiveRunFinishedNotifier::Options LiveRunFinishedNotifier::defaultOptions() {
    Options options;
    options.environment = [](std::string_view name) -> std::optional<std::string> {
        const char* value = std::getenv(std::string(name).c_str());
        if (value == nullptr || *value == '\0') return std::nullopt;
        return std::string(value);
    };
    options.pathExists = [](const std::string& path) {
        struct stat st {};
        return ::stat(path.c_str(), &st) == 0;
    };
    options.systemBus = ::geteuid() == 0;
    return options;
}

LiveRunFinishedNotifier::LiveRunFinishedNotifier(ShellRunner& runner, Options options)
    : runner_(runner), options_(std::move(options)) {
    auto defaults = defaultOptions();
    if (!options_.environment) options_.environment = defaults.environment;
    if (!options_.pathExists) options_.pathExists = defaults.pathExists;
}

LiveRunFinishedNotifier::LiveRunFinishedNotifier(ShellRunner& runner)
    : LiveRunFinishedNotifier(runner, defaultOptions()) {}

std::optional<ShellCommand> LiveRunFinishedNotifier::dbusCommand(const RunFinishedNotice& notice,
                                                                 std::string& whyNot) const {
    std::optional<std::string> tool;
    const std::string pathList = options_.environment("PATH").value_or("/usr/bin:/bin");
    for (std::size_t start = 0; start <= pathList.size();) {
        auto end = pathList.find(':', start);
        if (end == std::string::npos) end = pathList.size();
        if (end > start) {
            std::string candidate = pathList.substr(start, end - start) + "/dbus-send";
            if (options_.pathExists(candidate)) {
                tool = candidate;
                break;
            }
        }
        start = end + 1;
    }
    if (!tool) {
        whyNot = "dbus-send is not installed";
        return std::nullopt;
    }

    std::string busFlag;
    if (options_.systemBus) {
        const bool reachable = options_.environment("DBUS_SYSTEM_BUS_ADDRESS").has_value() ||
                               options_.pathExists("/run/dbus/system_bus_socket") ||
                               options_.pathExists("/var/run/dbus/system_bus_socket");
        if (!reachable) {
            whyNot = "no system bus is reachable";
            return std::nullopt;
        }
        busFlag = "--system";
    } else {
        if (!options_.environment("DBUS_SESSION_BUS_ADDRESS")) {
            whyNot = "no session bus is reachable";
            return std::nullopt;
        }
        busFlag = "--session";
    }

    std::string objectPath = "/";
    for (char c : options_.appIdentifier) objectPath.push_back(c == '.' ? '/' : c);
    // dbus-send separates dictionary entries with commas and has no escape for them.
    std::string dictionary = "dict:string:string:";
    bool first = true;
    for (auto [key, value] : notice.userInfo()) {
        for (char& c : value) {
            if (c == ',') c = ' ';
        }
        dictionary += (first ? "" : ",") + key + "," + value;
        first = false;
    }
    ShellCommand command;
    command.executable = *tool;
    command.arguments = {busFlag, "--type=signal", objectPath, options_.appIdentifier + ".runFinished", dictionary};
    command.timeout = std::chrono::seconds(10);
    return command;
}

}  // namespace ql
