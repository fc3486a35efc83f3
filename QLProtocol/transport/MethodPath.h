#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace ql {

// A method path, "/" + service full name + "/" + method name, e.g.
// "/ql4.transport.v1.TileService/WatchTiles". The router splits it at the first "/" after the
// leading one: everything before is the service, everything after is the method as the service
// must know it (a method containing a further "/" is simply unknown to every service).
struct MethodPath {
    std::string service;
    std::string method;

    // nullopt when the path does not begin with "/", has no second "/", or names an empty
    // service or method.
    static std::optional<MethodPath> parse(std::string_view path);
    static std::string make(std::string_view service, std::string_view method);

    friend bool operator==(const MethodPath&, const MethodPath&) = default;
};

}  // namespace ql
