#include "QLProtocol/transport/MethodPath.h"

namespace ql {

std::optional<MethodPath> MethodPath::parse(std::string_view path) {
    if (path.empty() || path.front() != '/') return std::nullopt;
    const auto rest = path.substr(1);
    const auto slash = rest.find('/');
    if (slash == std::string_view::npos) return std::nullopt;
    MethodPath parsed{std::string(rest.substr(0, slash)), std::string(rest.substr(slash + 1))};
    if (parsed.service.empty() || parsed.method.empty()) return std::nullopt;
    return parsed;
}

std::string MethodPath::make(std::string_view service, std::string_view method) {
    std::string path;
    path.reserve(service.size() + method.size() + 2);
    path += '/';
    path += service;
    path += '/';
    path += method;
    return path;
}

}  // namespace ql
