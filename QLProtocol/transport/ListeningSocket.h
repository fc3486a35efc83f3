#pragma once

#include <asio.hpp>
#include <tl/expected.hpp>

#include <string>
#include <sys/types.h>

namespace ql {

// Binding a listening Unix socket the way the server's sockets are bound: a stale file is
// cleared first (never one a live server answers on), the file gets `mode`, and on stop the file
// is removed only while it is still the one bound here (a successor may have replaced it).
struct ListeningSocket {
    struct FileIdentity {
        dev_t device = 0;
        ino_t inode = 0;
    };

    static tl::expected<FileIdentity, std::string> listen(asio::local::stream_protocol::acceptor& acceptor,
                                                          const std::string& path, unsigned mode);
    static void removeIfStill(const std::string& path, FileIdentity identity);
};

}  // namespace ql
