#include "QLProtocol/transport/ListeningSocket.h"

#include "QLProtocol/transport/SocketPath.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace ql {

tl::expected<ListeningSocket::FileIdentity, std::string> ListeningSocket::listen(
    asio::local::stream_protocol::acceptor& acceptor, const std::string& path, unsigned mode) {
    if (auto cleared = SocketPath::clearStale(path); !cleared) return tl::unexpected(cleared.error());
    std::error_code ec;
    acceptor.open(asio::local::stream_protocol(), ec);
    if (!ec) acceptor.bind(asio::local::stream_protocol::endpoint(path), ec);
    if (ec) {
        std::error_code ignored;
        acceptor.close(ignored);
        return tl::unexpected(fmt::format("cannot listen on {}: {}", path, ec.message()));
    }
    auto fail = [&](std::string reason) {
        std::error_code ignored;
        acceptor.close(ignored);
        ::unlink(path.c_str());
        return tl::unexpected(fmt::format("cannot listen on {}: {}", path, reason));
    };
    struct stat info {};
    if (::chmod(path.c_str(), static_cast<mode_t>(mode)) != 0 || ::stat(path.c_str(), &info) != 0) {
        return fail(std::strerror(errno));
    }
    acceptor.listen(asio::socket_base::max_listen_connections, ec);
    if (ec) return fail(ec.message());
    return FileIdentity{info.st_dev, info.st_ino};
}

void ListeningSocket::removeIfStill(const std::string& path, FileIdentity identity) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) == 0 && info.st_dev == identity.device && info.st_ino == identity.inode) {
        ::unlink(path.c_str());
    }
}

}  // namespace ql
