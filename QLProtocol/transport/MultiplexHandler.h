#pragma once

#include "QLProtocol/transport/ServiceHandler.h"

#include <map>
#include <memory>
#include <string>
#include <string_view>

namespace ql {

// Routes a call by its method path to the service registered under the path's service part.
// A path that is not "/" + service + "/" + method, or names no registered service, is refused
// with UNKNOWN_METHOD "Unknown method: " + the whole path. Services are registered before the
// server starts; routing only reads the map, so it needs no lock.
class MultiplexHandler {
public:
    // Registers (or replaces) the handler under its service name.
    void add(std::shared_ptr<ServiceHandler> service);
    const ServiceHandler* find(std::string_view serviceName) const;
    std::size_t size() const { return services_.size(); }

    asio::awaitable<tl::expected<std::string, CallRefusal>> unary(CallContext caller, std::string path,
                                                                  std::string body) const;
    asio::awaitable<tl::expected<std::unique_ptr<ServerItemStream>, CallRefusal>> stream(CallContext caller,
                                                                                       std::string path,
                                                                                       std::string body) const;

private:
    std::map<std::string, std::shared_ptr<ServiceHandler>, std::less<>> services_;
};

}  // namespace ql
