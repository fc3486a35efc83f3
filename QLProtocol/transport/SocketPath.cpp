#include "QLProtocol/transport/SocketPath.h"

#include "QLSupport/Log.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace ql {

namespace {

#if defined(__APPLE__)
constexpr bool onLinux = false;
#else
constexpr bool onLinux = true;
#endif

std::string joined(std::string_view folder, std::string_view name) {
    std::string path(folder);
    if (path.empty() || path.back() != '/') path += '/';
    path += name;
    return path;
}

std::optional<std::string> nonEmpty(const SocketPath::Environment& environment, std::string_view name) {
    auto value = environment(name);
    if (!value || value->empty()) return std::nullopt;
    return value;
}

}  // namespace

SocketPath::Environment SocketPath::processEnvironment() {
    return [](std::string_view name) -> std::optional<std::string> {
        const char* value = std::getenv(std::string(name).c_str());
        if (!value) return std::nullopt;
        return std::string(value);
    };
}

bool SocketPath::fileExists(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0;
}

std::string SocketPath::forClient() { return forClient(processEnvironment(), &SocketPath::fileExists, onLinux); }

std::string SocketPath::forClient(const Environment& environment, const FileExists& exists, bool linuxHost) {
    if (auto explicitPath = nonEmpty(environment, environmentVariable)) return *explicitPath;
    if (exists(std::string(systemPath))) return std::string(systemPath);
    if (linuxHost) {
        if (auto runtime = nonEmpty(environment, "XDG_RUNTIME_DIR")) {
            auto userPath = joined(*runtime, fileName);
            if (exists(userPath)) return userPath;
        }
    }
    return std::string(fallbackPath);
}

std::string SocketPath::serverDefault() { return serverDefault(::geteuid() == 0, processEnvironment(), onLinux); }

std::string SocketPath::serverDefault(bool runningAsRoot, const Environment& environment, bool linuxHost) {
    if (!linuxHost) return std::string(systemPath);
    if (runningAsRoot) return std::string(linuxRootPath);
    if (auto runtime = nonEmpty(environment, "XDG_RUNTIME_DIR")) return joined(*runtime, fileName);
    return std::string(fallbackPath);
}

std::string SocketPath::attestationPath(std::string_view mainSocketPath) {
    constexpr std::string_view suffix = ".sock";
    std::string path(mainSocketPath);
    if (path.size() > suffix.size() && std::string_view(path).substr(path.size() - suffix.size()) == suffix) {
        path.resize(path.size() - suffix.size());
    }
    return path + ".attest.sock";
}

tl::expected<void, std::string> SocketPath::clearStale(const std::string& path) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0) {
        if (errno == ENOENT) return {};
        return tl::unexpected(fmt::format("cannot inspect {}: {}", path, std::strerror(errno)));
    }
    if (!S_ISSOCK(info.st_mode)) {
        return tl::unexpected(fmt::format("{} exists and is not a socket; leaving it alone", path));
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        return tl::unexpected(fmt::format("the socket path {} is too long", path));
    }
    std::memcpy(address.sun_path, path.data(), path.size());
    const int probe = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (probe < 0) return tl::unexpected(fmt::format("cannot probe {}: {}", path, std::strerror(errno)));
    const int result = ::connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    const int error = result == 0 ? 0 : errno;
    ::close(probe);
    // Connected, or a full listen queue: a live server owns this socket.
    if (result == 0 || error == EAGAIN || error == EWOULDBLOCK) {
        return tl::unexpected(fmt::format("another server is answering on {}", path));
    }
    if (error != ECONNREFUSED && error != ENOENT) {
        return tl::unexpected(fmt::format("cannot probe {}: {}", path, std::strerror(error)));
    }
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
        return tl::unexpected(fmt::format("cannot remove the stale socket {}: {}", path, std::strerror(errno)));
    }
    Log::f("UDSServer", "removed the stale socket {}", path);
    return {};
}

}  // namespace ql
