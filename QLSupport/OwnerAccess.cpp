#include "QLSupport/OwnerAccess.h"

#include "QLSupport/ChildPrivileges.h"
#include "QLSupport/Log.h"
#include "QLSupport/PosixSpawnedProcess.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace ql {
namespace {

constexpr const char* kTag = "access";

std::string describe(int code) { return fmt::format("{} (errno={})", std::strerror(code), code); }

// What a check found, passed from the checking child as plain numbers. `index` is the position
// in the candidate list of the path that decided (for folders made, how many were made);
// `stage` is not `none` when the child could not become the user and checked nothing.
struct Outcome {
    int stage = 0;
    int code = 0;
    int index = 0;
    int allowed = 0;
};

// The candidates as C strings, made before any fork; the checks below read only these.
struct Candidates {
    std::vector<std::string> paths;
    std::vector<const char*> pointers;
    explicit Candidates(std::vector<std::string> list) : paths(std::move(list)) {
        for (const auto& p : paths) pointers.push_back(p.c_str());
    }
    int count() const { return static_cast<int>(pointers.size()); }
};

// The checks. Async-signal-safe calls only: they run in a forked child.

Outcome checkRead(const Candidates& c) noexcept {
    if (c.count() == 0) return {0, ENOENT, 0, 0};
    struct stat st {};
    if (::stat(c.pointers[0], &st) != 0) return {0, errno, 0, 0};
    int wanted = S_ISDIR(st.st_mode) ? (R_OK | X_OK) : R_OK;
    if (::faccessat(AT_FDCWD, c.pointers[0], wanted, AT_EACCESS) != 0) return {0, errno, 0, 0};
    return {0, 0, 0, 1};
}

Outcome checkWrite(const Candidates& c) noexcept {
    if (c.count() == 0) return {0, ENOENT, 0, 0};
    for (int i = 0; i < c.count(); ++i) {
        struct stat st {};
        if (::stat(c.pointers[i], &st) != 0) {
            if (errno == ENOENT && i + 1 < c.count()) continue;
            return {0, errno, i, 0};
        }
        int wanted = S_ISDIR(st.st_mode) ? (W_OK | X_OK) : W_OK;
        if (::faccessat(AT_FDCWD, c.pointers[i], wanted, AT_EACCESS) != 0) return {0, errno, i, 0};
        return {0, 0, i, 1};
    }
    return {0, ENOENT, 0, 0};
}

Outcome makeFolders(const Candidates& c, mode_t mode) noexcept {
    if (c.count() == 0) return {0, ENOENT, 0, 0};
    int existing = 0;
    for (;; ++existing) {
        struct stat st {};
        if (::stat(c.pointers[existing], &st) == 0) {
            if (!S_ISDIR(st.st_mode)) return {0, existing == 0 ? EEXIST : ENOTDIR, existing, 0};
            break;
        }
        if (errno != ENOENT || existing + 1 == c.count()) return {0, errno, existing, 0};
    }
    for (int i = existing - 1; i >= 0; --i) {
        if (::mkdir(c.pointers[i], mode) == 0) continue;
        int code = errno;
        struct stat st {};
        // Made by someone else meanwhile: as good as made by us, if it is a folder.
        if (code == EEXIST && ::stat(c.pointers[i], &st) == 0 && S_ISDIR(st.st_mode)) continue;
        return {0, code, i, 0};
    }
    return {0, 0, existing, 1};
}

[[noreturn]] void reportAndExit(int fd, const Outcome& outcome) noexcept {
    [[maybe_unused]] ssize_t written = ::write(fd, &outcome, sizeof outcome);
    ::_exit(0);
}

// Runs `check` with `user`'s credentials: in a forked child that drops to them, or here when
// we are not root and they are exactly ours. A sentence fragment when the check could not run.
template <typename Check>
tl::expected<Outcome, std::string> runAs(const UserCredentials& user, Check check) {
    detail::PrivilegeDrop drop = detail::preparePrivilegeDrop(user);
    if (::geteuid() != 0 && !drop.setGroups) return check();

    int fds[2];
    if (int rc = detail::makeCloexecPipe(fds); rc != 0) return tl::unexpected("pipe failed: " + describe(rc));
    PosixSpawnedProcess::Descriptor readEnd(fds[0]), writeEnd(fds[1]);
    pid_t pid = detail::forkWithSignalsBlocked();
    if (pid == 0) {
        // Signals stay blocked: the child only checks, writes its answer and exits.
        detail::ChildStage stage = detail::ChildStage::none;
        int rc = detail::dropPrivileges(drop, stage);
        if (stage != detail::ChildStage::none) reportAndExit(writeEnd.get(), {static_cast<int>(stage), rc, 0, 0});
        reportAndExit(writeEnd.get(), check());
    }
    if (pid < 0) return tl::unexpected("fork failed: " + describe(errno));
    writeEnd.reset();

    Outcome outcome;
    auto* bytes = reinterpret_cast<char*>(&outcome);
    std::size_t got = 0;
    int readError = 0;
    while (got < sizeof outcome) {
        ssize_t n = ::read(readEnd.get(), bytes + got, sizeof outcome - got);
        if (n > 0) {
            got += static_cast<std::size_t>(n);
        } else if (n == 0) {
            break;
        } else if (errno != EINTR) {
            readError = errno;
            break;
        }
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (readError != 0) return tl::unexpected("reading the answer failed: " + describe(readError));
    if (got != sizeof outcome) {
        auto ended = PosixSpawnedProcess::decodeStatus(status);
        return tl::unexpected(fmt::format("the checking process ended (status {}) without an answer", ended.code));
    }
    if (outcome.stage != static_cast<int>(detail::ChildStage::none)) {
        return tl::unexpected(detail::describeChildFailure(static_cast<detail::ChildStage>(outcome.stage), outcome.code));
    }
    return outcome;
}

AccessFinding findingFrom(const Outcome& outcome, const Candidates& candidates) {
    AccessFinding finding;
    finding.allowed = outcome.allowed != 0;
    finding.error = outcome.code;
    if (outcome.index >= 0 && outcome.index < candidates.count()) {
        finding.checkedPath = candidates.paths[static_cast<std::size_t>(outcome.index)];
    }
    return finding;
}

void logFinding(const UserCredentials& user, const char* verb, const std::string& path, const AccessFinding& f) {
    std::string checked = f.checkedPath == path ? "" : fmt::format(" (checked {})", f.checkedPath);
    if (f.allowed) {
        Log::f(kTag, "{} may {} {}{}", user.label(), verb, path, checked);
    } else {
        Log::f(kTag, "{} may not {} {}{}: {}", user.label(), verb, path, checked, describe(f.error));
    }
}

tl::expected<AccessFinding, std::string> check(const UserCredentials& user, const std::string& path, bool write) {
    const char* verb = write ? "write" : "read";
    // A read is decided by the path alone; a write may be decided by an ancestor.
    auto paths = OwnerAccessProbe::pathAndAncestors(path);
    if (!write && paths.size() > 1) paths.resize(1);
    Candidates candidates(std::move(paths));
    auto outcome = runAs(user, [&]() noexcept { return write ? checkWrite(candidates) : checkRead(candidates); });
    if (!outcome) {
        Log::f(kTag, "could not check whether {} may {} {}: {}", user.label(), verb, path, outcome.error());
        return tl::unexpected(
            fmt::format("Could not check access to {} as {}: {}.", path, user.label(), outcome.error()));
    }
    AccessFinding finding = findingFrom(*outcome, candidates);
    logFinding(user, verb, path, finding);
    return finding;
}

}  // namespace

std::vector<std::string> OwnerAccessProbe::pathAndAncestors(const std::string& path) {
    if (path.empty()) return {};
    std::string current = path;
    if (current.front() != '/') {
        std::error_code ec;
        auto absolute = std::filesystem::absolute(path, ec);
        if (!ec) current = absolute.string();
    }
    std::vector<std::string> list;
    for (;;) {
        while (current.size() > 1 && current.back() == '/') current.pop_back();
        list.push_back(current);
        if (current == "/" || current.empty()) return list;
        auto slash = current.rfind('/');
        if (slash == std::string::npos) return list;
        current.resize(slash == 0 ? 1 : slash);
    }
}

tl::expected<AccessFinding, std::string> LiveOwnerAccessProbe::canRead(const UserCredentials& user,
                                                                       const std::string& path) const {
    return check(user, path, false);
}

tl::expected<AccessFinding, std::string> LiveOwnerAccessProbe::canWrite(const UserCredentials& user,
                                                                        const std::string& path) const {
    return check(user, path, true);
}

tl::expected<void, int> LiveOwnerAccessProbe::makeDirectories(const UserCredentials& user, const std::string& path,
                                                               mode_t mode) const {
    Candidates candidates(pathAndAncestors(path));
    auto outcome = runAs(user, [&]() noexcept { return makeFolders(candidates, mode); });
    if (!outcome) {
        Log::f(kTag, "could not make {} as {}: {}", path, user.label(), outcome.error());
        // No errno describes a check that could not run; EPERM is what the caller would have
        // met without the right credentials.
        return tl::unexpected(EPERM);
    }
    if (!outcome->allowed) {
        auto finding = findingFrom(*outcome, candidates);
        std::string where = finding.checkedPath == path ? "" : fmt::format(" (at {})", finding.checkedPath);
        Log::f(kTag, "could not make {} as {}{}: {}", path, user.label(), where, describe(outcome->code));
        return tl::unexpected(outcome->code);
    }
    if (outcome->index == 0) {
        Log::f(kTag, "{} is a folder already; nothing to make as {}", path, user.label());
    } else {
        Log::f(kTag, "made {} as {} ({} new folder{})", path, user.label(), outcome->index,
               outcome->index == 1 ? "" : "s");
    }
    return {};
}

tl::expected<AccessFinding, std::string> FakeOwnerAccessProbe::canRead(const UserCredentials&,
                                                                       const std::string& path) const {
    if (probeFailure) return tl::unexpected(*probeFailure);
    auto candidates = pathAndAncestors(path);
    std::string checked = candidates.empty() ? path : candidates.front();
    auto it = readErrors.find(checked);
    int error = it == readErrors.end() ? 0 : it->second;
    return AccessFinding{error == 0, checked, error};
}

tl::expected<AccessFinding, std::string> FakeOwnerAccessProbe::canWrite(const UserCredentials&,
                                                                        const std::string& path) const {
    if (probeFailure) return tl::unexpected(*probeFailure);
    auto candidates = pathAndAncestors(path);
    for (std::size_t i = 0; i < candidates.size(); ++i) {
        auto it = writeErrors.find(candidates[i]);
        int error = it == writeErrors.end() ? 0 : it->second;
        if (error == ENOENT && i + 1 < candidates.size()) continue;
        return AccessFinding{error == 0, candidates[i], error};
    }
    return AccessFinding{false, path, ENOENT};
}

tl::expected<void, int> FakeOwnerAccessProbe::makeDirectories(const UserCredentials&, const std::string& path,
                                                              mode_t) const {
    auto it = makeDirectoriesErrors.find(path);
    if (it != makeDirectoriesErrors.end() && it->second != 0) return tl::unexpected(it->second);
    madeDirectories.push_back(path);
    return {};
}

}  // namespace ql
