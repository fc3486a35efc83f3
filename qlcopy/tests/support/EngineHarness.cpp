#include "EngineHarness.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <sstream>

extern char** environ;

namespace ql::test {

std::string engineBinary() { return QLCOPY_BINARY; }

std::vector<Json> EngineRun::ofType(const std::string& type) const {
    std::vector<Json> out;
    for (const auto& e : events) {
        if (e.value("type", "") == type) out.push_back(e);
    }
    return out;
}

std::optional<Json> EngineRun::first(const std::string& type) const {
    for (const auto& e : events) {
        if (e.value("type", "") == type) return e;
    }
    return std::nullopt;
}

std::vector<std::string> EngineRun::types() const {
    std::vector<std::string> out;
    for (const auto& e : events) out.push_back(e.value("type", ""));
    return out;
}

std::int64_t EngineRun::summaryInt(const std::string& key, std::int64_t fallback) const {
    auto s = first("summary");
    if (!s) s = first("failure");
    if (!s || !s->contains(key)) return fallback;
    return (*s)[key].get<std::int64_t>();
}

std::string EngineRun::describe() const {
    std::ostringstream o;
    o << "exit " << exitStatus << " signal " << signal << "\n--- stderr ---\n" << err << "\n--- events ---\n";
    for (const auto& e : events) {
        if (e.value("type", "") == "progress") continue;
        o << dumpJson(e) << "\n";
    }
    return o.str();
}

EngineRun runEngine(const EngineLaunch& launch) {
    int events[2], out[2], err[2];
    if (::pipe2(events, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe failed");
    }
    std::vector<std::string> args{engineBinary()};
    if (launch.addProgressFd) {
        args.push_back("--progress-fd");
        args.push_back("3");
    }
    args.insert(args.end(), launch.args.begin(), launch.args.end());
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);

    auto started = std::chrono::steady_clock::now();
    pid_t pid = ::fork();
    if (pid < 0) throw std::runtime_error("fork failed");
    if (pid == 0) {
        // Child: only async-signal-safe calls from here to exec.
        ::dup2(events[1], 3);
        ::dup2(out[1], 1);
        ::dup2(err[1], 2);
        sigset_t none;
        sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        if (launch.gid) {
            ::setgroups(0, nullptr);
            if (::setresgid(*launch.gid, *launch.gid, *launch.gid) != 0) ::_exit(120);
        }
        if (launch.uid && ::setresuid(*launch.uid, *launch.uid, *launch.uid) != 0) ::_exit(121);
        ::execve(argv[0], argv.data(), environ);
        ::_exit(127);
    }
    ::close(events[1]);
    ::close(out[1]);
    ::close(err[1]);

    EngineRun run;
    std::string pending;
    struct pollfd fds[3] = {{events[0], POLLIN, 0}, {out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
    int open = 3;
    bool killed = false;
    char buffer[65536];
    while (open > 0) {
        auto elapsed = std::chrono::steady_clock::now() - started;
        if (!killed && elapsed > launch.timeout) {
            ::kill(pid, SIGKILL);
            killed = true;
        }
        int r = ::poll(fds, 3, 200);
        if (r < 0 && errno != EINTR) break;
        for (int i = 0; i < 3; ++i) {
            if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
            ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
            if (n <= 0) {
                ::close(fds[i].fd);
                fds[i].fd = -1;
                --open;
                continue;
            }
            if (i == 1) run.out.append(buffer, static_cast<size_t>(n));
            if (i == 2) run.err.append(buffer, static_cast<size_t>(n));
            if (i == 0) {
                pending.append(buffer, static_cast<size_t>(n));
                size_t nl;
                while ((nl = pending.find('\n')) != std::string::npos) {
                    std::string line = pending.substr(0, nl);
                    pending.erase(0, nl + 1);
                    auto parsed = parseJson(line);
                    if (!parsed || !parsed->is_object()) {
                        run.badLines.push_back(line);
                        continue;
                    }
                    run.events.push_back(*parsed);
                    if (launch.onEvent) launch.onEvent(run.events.back(), pid);
                }
            }
        }
    }
    if (!pending.empty()) run.badLines.push_back(pending);
    int status = 0;
    ::waitpid(pid, &status, 0);
    run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    if (WIFEXITED(status)) {
        run.exitStatus = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        run.signal = WTERMSIG(status);
    }
    return run;
}

}  // namespace ql::test
