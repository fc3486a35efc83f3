#pragma once

#include "QLProtocol/transport/ServiceHandler.h"
#include "QLProtocol/transport/ServiceMethod.h"

#include <exception>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

namespace ql {

// The items of a provider's stream, serialized for the socket.
template <typename Item>
class TypedServerItemStream final : public ServerItemStream {
public:
    explicit TypedServerItemStream(ServerStream<Item> consumer) : consumer_(std::move(consumer)) {}

    asio::awaitable<std::optional<std::string>> next() override {
        auto item = co_await consumer_.next();
        if (!item) co_return std::nullopt;
        co_return item->SerializeAsString();
    }
    std::optional<std::string> failure() const override {
        auto failure = consumer_.failure();
        if (!failure) return std::nullopt;
        return failure->message;
    }
    void cancel() override { consumer_.cancel(); }

private:
    ServerStream<Item> consumer_;
};

// The server adapter of a service (see ServiceMethod.h): decodes the request of the method the
// router names, calls the provider and encodes its answer. Refusals:
//   - a method the table does not have: UNKNOWN_METHOD "Unknown method: " + path;
//   - a streaming method called as unary: "Unknown method: " + path + " (expected server-stream)",
//     a unary one called as a stream: "… (expected unary)";
//   - a request body that does not decode: DECODE_ERROR;
//   - a provider's HandlerError (or an exception escaping it): HANDLER_ERROR with its text.
template <typename Service>
class ServiceServer final : public ServiceHandler {
public:
    using Provider = typename Service::Provider;

    explicit ServiceServer(std::shared_ptr<Provider> provider) : provider_(std::move(provider)) {
        Service::Methods::forEach([this](auto entry) {
            using M = typename decltype(entry)::type;
            Route route;
            route.serverStream = M::serverStream;
            if constexpr (M::serverStream) {
                route.stream = &ServiceServer::template callStream<M>;
            } else {
                route.unary = &ServiceServer::template callUnary<M>;
            }
            routes_.emplace(M::name, route);
        });
    }

    std::string_view serviceName() const override { return Service::fullName; }

    asio::awaitable<tl::expected<std::string, CallRefusal>> unary(CallContext caller, std::string path,
                                                                  std::string method, std::string body) override {
        auto it = routes_.find(method);
        if (it == routes_.end()) co_return tl::unexpected(CallRefusal::unknownMethod(path));
        if (it->second.serverStream) co_return tl::unexpected(CallRefusal::wrongCallKind(path, true));
        auto call = it->second.unary;
        co_return co_await call(provider_, caller, std::move(path), std::move(body));
    }

    asio::awaitable<tl::expected<std::unique_ptr<ServerItemStream>, CallRefusal>> stream(CallContext caller,
                                                                                       std::string path,
                                                                                       std::string method,
                                                                                       std::string body) override {
        auto it = routes_.find(method);
        if (it == routes_.end()) co_return tl::unexpected(CallRefusal::unknownMethod(path));
        if (!it->second.serverStream) co_return tl::unexpected(CallRefusal::wrongCallKind(path, false));
        auto call = it->second.stream;
        co_return co_await call(provider_, caller, std::move(path), std::move(body));
    }

private:
    using UnaryCall = asio::awaitable<tl::expected<std::string, CallRefusal>> (*)(std::shared_ptr<Provider>, CallContext,
                                                                                  std::string, std::string);
    using StreamCall = asio::awaitable<tl::expected<std::unique_ptr<ServerItemStream>, CallRefusal>> (*)(
        std::shared_ptr<Provider>, CallContext, std::string, std::string);
    struct Route {
        bool serverStream = false;
        UnaryCall unary = nullptr;
        StreamCall stream = nullptr;
    };

    template <typename Request>
    static tl::expected<Request, CallRefusal> decode(const std::string& body) {
        Request request;
        if (!request.ParseFromString(body)) {
            return tl::unexpected(
                CallRefusal::decodeError("the request body does not decode as " + Request::descriptor()->full_name()));
        }
        return request;
    }

    static std::string describe(std::exception_ptr error) {
        try {
            std::rethrow_exception(error);
        } catch (const std::exception& e) {
            return e.what();
        } catch (...) {
            return "unknown exception";
        }
    }

    template <typename M>
    static asio::awaitable<tl::expected<std::string, CallRefusal>> callUnary(std::shared_ptr<Provider> provider,
                                                                             CallContext caller, std::string path,
                                                                             std::string body) {
        auto request = decode<typename M::Request>(body);
        if (!request) co_return tl::unexpected(request.error());
        tl::expected<typename M::Response, HandlerError> result;
        std::exception_ptr thrown;
        try {
            result = co_await ((*provider).*M::member)(caller, std::move(*request));
        } catch (...) {
            thrown = std::current_exception();
        }
        if (thrown) co_return tl::unexpected(CallRefusal::handlerError(describe(thrown)));
        if (!result) co_return tl::unexpected(CallRefusal::handlerError(result.error().description(path)));
        co_return result->SerializeAsString();
    }

    template <typename M>
    static asio::awaitable<tl::expected<std::unique_ptr<ServerItemStream>, CallRefusal>> callStream(
        std::shared_ptr<Provider> provider, CallContext caller, std::string path, std::string body) {
        auto request = decode<typename M::Request>(body);
        if (!request) co_return tl::unexpected(request.error());
        tl::expected<ServerStream<typename M::Response>, HandlerError> result;
        std::exception_ptr thrown;
        try {
            result = co_await ((*provider).*M::member)(caller, std::move(*request));
        } catch (...) {
            thrown = std::current_exception();
        }
        if (thrown) co_return tl::unexpected(CallRefusal::handlerError(describe(thrown)));
        if (!result) co_return tl::unexpected(CallRefusal::handlerError(result.error().description(path)));
        co_return std::make_unique<TypedServerItemStream<typename M::Response>>(std::move(*result));
    }

    std::shared_ptr<Provider> provider_;
    std::map<std::string, Route, std::less<>> routes_;
};

}  // namespace ql
