#include "QLProtocol/transport/MultiplexHandler.h"

#include "QLProtocol/transport/MethodPath.h"

namespace ql {

void MultiplexHandler::add(std::shared_ptr<ServiceHandler> service) {
    std::string name(service->serviceName());
    services_[std::move(name)] = std::move(service);
}

const ServiceHandler* MultiplexHandler::find(std::string_view serviceName) const {
    auto it = services_.find(serviceName);
    return it == services_.end() ? nullptr : it->second.get();
}

asio::awaitable<tl::expected<std::string, CallRefusal>> MultiplexHandler::unary(CallContext caller, std::string path,
                                                                               std::string body) const {
    auto parsed = MethodPath::parse(path);
    auto it = parsed ? services_.find(parsed->service) : services_.end();
    if (it == services_.end()) co_return tl::unexpected(CallRefusal::unknownMethod(path));
    auto service = it->second;  // keeps the handler alive across the call
    co_return co_await service->unary(caller, std::move(path), std::move(parsed->method), std::move(body));
}

asio::awaitable<tl::expected<std::unique_ptr<ServerItemStream>, CallRefusal>> MultiplexHandler::stream(
    CallContext caller, std::string path, std::string body) const {
    auto parsed = MethodPath::parse(path);
    auto it = parsed ? services_.find(parsed->service) : services_.end();
    if (it == services_.end()) co_return tl::unexpected(CallRefusal::unknownMethod(path));
    auto service = it->second;
    co_return co_await service->stream(caller, std::move(path), std::move(parsed->method), std::move(body));
}

}  // namespace ql
