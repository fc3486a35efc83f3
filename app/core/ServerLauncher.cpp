#include "app/core/ServerLauncher.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

extern char** environ;

namespace ql {

namespace fs = std::filesystem;

namespace {

bool isExecutableFile(const fs::path& path) {
    std::error_code error;
    return fs::is_regular_file(path, error) && ::access(path.c_str(), X_OK) == 0;
}

std::vector<char*> argv(const ServerLauncher::Plan& plan, std::vector<std::string>& storage) {
    storage.clear();
    storage.push_back(fs::path(plan.executable).filename().string());
    storage.insert(storage.end(), plan.arguments.begin(), plan.arguments.end());
    std::vector<char*> out;
    for (auto& s : storage) out.push_back(s.data());
    out.push_back(nullptr);
    return out;
}

}  // namespace

std::string ServerLauncher::selfExecutable() {
    std::error_code error;
    auto self = fs::read_symlink("/proc/self/exe", error);
    return error ? std::string() : self.string();
}

std::optional<std::string> ServerLauncher::findServer(const std::string& selfExecutable,
                                                      const std::string& pathVariable) {
    const std::string name = "qlcopyserver";
    if (!selfExecutable.empty()) {
        const fs::path dir = fs::path(selfExecutable).parent_path();
        const fs::path candidates[] = {
            dir / name,                                   // installed side by side
            dir.parent_path() / "server-main" / name,     // build tree: <build>/app/cli/quillo
            dir.parent_path().parent_path() / "server-main" / name,
        };
        for (const auto& c : candidates) {
            if (isExecutableFile(c)) return fs::weakly_canonical(c).string();
        }
    }
    std::size_t start = 0;
    while (start <= pathVariable.size()) {
        auto end = pathVariable.find(':', start);
        if (end == std::string::npos) end = pathVariable.size();
        const std::string dir = pathVariable.substr(start, end - start);
        if (!dir.empty() && isExecutableFile(fs::path(dir) / name)) return (fs::path(dir) / name).string();
        start = end + 1;
    }
    return std::nullopt;
}

tl::expected<int, std::string> ServerLauncher::start(const Plan& plan) {
    if (!plan.logPath.empty()) {
        std::error_code ignored;
        fs::create_directories(fs::path(plan.logPath).parent_path(), ignored);
    }
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    const std::string log = plan.logPath.empty() ? "/dev/null" : plan.logPath;
    posix_spawn_file_actions_addopen(&actions, 1, log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    // Its own session: the terminal's Ctrl-C and hang-up do not reach the server.
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);

    std::vector<std::string> storage;
    auto args = argv(plan, storage);
    pid_t pid = 0;
    const int error = ::posix_spawn(&pid, plan.executable.c_str(), &actions, &attributes, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (error != 0) return tl::unexpected("could not start " + plan.executable + ": " + std::strerror(error));
    return static_cast<int>(pid);
}

std::string ServerLauncher::exec(const Plan& plan) {
    std::vector<std::string> storage;
    auto args = argv(plan, storage);
    ::execv(plan.executable.c_str(), args.data());
    return "could not run " + plan.executable + ": " + std::strerror(errno);
}

}  // namespace ql
