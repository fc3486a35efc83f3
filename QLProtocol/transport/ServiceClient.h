#pragma once

#include "QLProtocol/transport/ClientStream.h"
#include "QLProtocol/transport/MethodPath.h"
#include "QLProtocol/transport/ServiceMethod.h"
#include "QLProtocol/transport/UDSChannel.h"

#include <memory>
#include <string>
#include <utility>

namespace ql {

// The client stub of a service (see ServiceMethod.h): a typed call per provider member.
//
//     TileServiceClient tiles(channel);
//     auto listed = co_await tiles.call<&TileServiceProvider::listTiles>(ql4::transport::v1::ListTilesRequest{});
//     // listed: tl::expected<ListTilesResponse, TransportError>
//     auto watch = co_await tiles.call<&TileServiceProvider::watchTiles>(WatchTilesRequest{});
//     // watch: ClientStream<TileEvent>
//
// A response that does not decode is `decodeFailed`; channel failures pass through unchanged.
// The calls hold the channel themselves, so the stub may go away while they run.
template <typename Service>
class ServiceClient {
public:
    explicit ServiceClient(std::shared_ptr<UDSChannel> channel) : channel_(std::move(channel)) {}

    template <auto Member>
    using MethodFor = typename Service::Methods::template Find<Member>;

    // "/" + service full name + "/" + method name.
    template <auto Member>
    static std::string path() {
        static_assert(!std::is_void_v<MethodFor<Member>>, "this member is not in the service's method table");
        return MethodPath::make(Service::fullName, MethodFor<Member>::name);
    }

    template <auto Member>
    auto call(typename MethodFor<Member>::Request request) const {
        using M = MethodFor<Member>;
        if constexpr (M::serverStream) {
            return callStream<typename M::Response>(channel_, path<Member>(), std::move(request));
        } else {
            return callUnary<typename M::Response>(channel_, path<Member>(), std::move(request));
        }
    }

    const std::shared_ptr<UDSChannel>& channel() const { return channel_; }

private:
    template <typename Response, typename Request>
    static asio::awaitable<tl::expected<Response, TransportError>> callUnary(std::shared_ptr<UDSChannel> channel,
                                                                            std::string path, Request request) {
        auto bytes = co_await channel->unary(path, request.SerializeAsString());
        if (!bytes) co_return tl::unexpected(bytes.error());
        Response response;
        if (!response.ParseFromString(*bytes)) {
            co_return tl::unexpected(TransportError::decodeFailed("the response of " + path + " does not decode as " +
                                                                  Response::descriptor()->full_name()));
        }
        co_return response;
    }

    template <typename Item, typename Request>
    static asio::awaitable<ClientStream<Item>> callStream(std::shared_ptr<UDSChannel> channel, std::string path,
                                                          Request request) {
        auto raw = co_await channel->serverStream(path, request.SerializeAsString());
        co_return ClientStream<Item>(std::move(raw), std::move(path));
    }

    std::shared_ptr<UDSChannel> channel_;
};

}  // namespace ql
