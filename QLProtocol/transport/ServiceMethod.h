#pragma once

#include "QLProtocol/proto/envelope.pb.h"
#include "QLProtocol/transport/CallContext.h"
#include "QLProtocol/transport/HandlerError.h"
#include "QLSupport/EventStream.h"

#include <asio.hpp>
#include <tl/expected.hpp>

#include <algorithm>
#include <cstddef>
#include <string_view>
#include <type_traits>
#include <utility>

namespace ql {

// The wire schema's messages, as the provider interfaces name them.
namespace wire = ql4::transport::v1;

// The one mechanism behind every service's provider interface, server adapter and client stub.
//
// A provider is an interface of coroutines, one per method:
//
//     unary:   UnaryResult<Response> method(CallContext caller, Request request);
//     stream:  StreamResult<Item>    method(CallContext caller, Request request);
//
// `caller` is who is calling, from the kernel's credentials of the connection: a provider
// decides with it what this person may see and do.
//
// A unary method returns the response or a `HandlerError`. A streaming method returns the
// consumer end of an `EventStream<Item>` (`ServerStream<Item>`) or a `HandlerError` when it
// refuses at once; the server writes every item the producer pushes, ends the stream when the
// producer finishes (a `StreamFailure` becomes the END_ERROR text), and when the client goes
// away it drops the consumer, which the producer sees (`consumerGone`, `onConsumerGone`).
// Requests come by value (a coroutine must not hold references across suspensions). Every
// method of a provider interface has a default body (`{ return notAvailable; }`) answering
// "… is not available on this server", so a provider implements only what it offers.
//
// A service is described by a method table, one line per method that pairs the wire name with
// the provider member; request, response and call kind follow from the member's signature:
//
//     struct TileService {
//         using Provider = TileServiceProvider;
//         static constexpr std::string_view fullName = "ql4.transport.v1.TileService";
//         using Methods = MethodTable<
//             Method<"ListTiles", &Provider::listTiles>,
//             Method<"WatchTiles", &Provider::watchTiles>>;
//     };
//
// `ServiceServer<TileService>` (the server adapter) and `ServiceClient<TileService>` (the client
// stub) are generated from it.

template <typename Response>
using UnaryResult = asio::awaitable<tl::expected<Response, HandlerError>>;
template <typename Item>
using ServerStream = typename EventStream<Item>::Consumer;
template <typename Item>
using StreamResult = asio::awaitable<tl::expected<ServerStream<Item>, HandlerError>>;

// The default body of every provider method, `{ return notAvailable; }`: converts to the
// method's result and answers with `HandlerError::notAvailable()`.
template <typename Result>
asio::awaitable<tl::expected<Result, HandlerError>> notAvailableResult() {
    co_return tl::unexpected(HandlerError::notAvailable());
}
struct NotAvailable {
    template <typename Result>
    operator asio::awaitable<tl::expected<Result, HandlerError>>() const {
        return notAvailableResult<Result>();
    }
};
inline constexpr NotAvailable notAvailable{};

// A method name as a template argument.
template <std::size_t N>
struct MethodName {
    char text[N]{};
    constexpr MethodName(const char (&name)[N]) { std::copy_n(name, N, text); }
    constexpr std::string_view view() const { return {text, N - 1}; }
};

namespace detail {

template <typename R>
concept StreamConsumer = requires(R& r) {
    r.next();
    r.cancel();
    r.failure();
};

// What a provider member returns inside its expected: the response message (unary) or the
// stream consumer, whose `next()` yields awaitable<optional<Item>> (streaming).
template <typename Result, bool serverStream = StreamConsumer<Result>>
struct ResponseOf {
    using type = Result;
};
template <typename Result>
struct ResponseOf<Result, true> {
    using type = typename decltype(std::declval<Result&>().next())::value_type::value_type;
};

template <typename Member>
struct MemberSignature;

template <typename P, typename Req, typename Result>
struct MemberSignature<asio::awaitable<tl::expected<Result, HandlerError>> (P::*)(CallContext, Req)> {
    using Provider = P;
    using Request = Req;
    static constexpr bool serverStream = StreamConsumer<Result>;
    using Response = typename ResponseOf<Result>::type;
};

}  // namespace detail

// One line of a method table. `Response` is the response message of a unary method and the
// item message of a streaming one.
template <MethodName Name, auto Member>
struct Method {
    using Signature = detail::MemberSignature<decltype(Member)>;
    using Provider = typename Signature::Provider;
    using Request = typename Signature::Request;
    using Response = typename Signature::Response;
    static constexpr bool serverStream = Signature::serverStream;
    static constexpr std::string_view name = Name.view();
    static constexpr auto member = Member;
};

namespace detail {

template <auto Member, typename Entry>
struct IsMethodFor : std::false_type {};
template <auto Member, MethodName Name>
struct IsMethodFor<Member, Method<Name, Member>> : std::true_type {};

template <auto Member, typename... Entries>
struct FindMethod {
    using type = void;
};
template <auto Member, typename First, typename... Rest>
struct FindMethod<Member, First, Rest...> {
    using type = std::conditional_t<IsMethodFor<Member, First>::value, First,
                                    typename FindMethod<Member, Rest...>::type>;
};

}  // namespace detail

template <typename... Methods>
struct MethodTable {
    static constexpr std::size_t size = sizeof...(Methods);

    // The entry for a provider member (void when the table has none).
    template <auto Member>
    using Find = typename detail::FindMethod<Member, Methods...>::type;

    // Calls `f(std::type_identity<Entry>{})` for every entry, in table order.
    template <typename F>
    static void forEach(F&& f) {
        (f(std::type_identity<Methods>{}), ...);
    }
};

}  // namespace ql
