// The six method tables agree with the schema, and every method path of the schema routes
// through the server adapters to its provider (the base providers answer "not available"),
// while misspelt methods and the wrong call kind are refused as unknown.
#include <gtest/gtest.h>

#include "QLProtocol/proto/WireServices.h"
#include "QLProtocol/transport/ServiceCatalogue.h"

#include <asio.hpp>

namespace {

using namespace ql;
using Status = ql4::transport::v1::WireResponse;

template <typename T>
T runOn(asio::io_context& io, asio::awaitable<T> operation) {
    auto future = asio::co_spawn(io, std::move(operation), asio::use_future);
    io.restart();
    io.run();
    return future.get();
}

TEST(ServiceTableTest, EveryTableMatchesTheSchema) {
    EXPECT_EQ(ServiceCatalogue::schemaMismatches<CopyService>(), std::vector<std::string>{});
    EXPECT_EQ(ServiceCatalogue::schemaMismatches<DestinationService>(), std::vector<std::string>{});
    EXPECT_EQ(ServiceCatalogue::schemaMismatches<SourceService>(), std::vector<std::string>{});
    EXPECT_EQ(ServiceCatalogue::schemaMismatches<SystemService>(), std::vector<std::string>{});
    EXPECT_EQ(ServiceCatalogue::schemaMismatches<TileService>(), std::vector<std::string>{});
    EXPECT_EQ(ServiceCatalogue::schemaMismatches<LockService>(), std::vector<std::string>{});
    std::size_t methods = CopyService::Methods::size + DestinationService::Methods::size + SourceService::Methods::size +
                          SystemService::Methods::size + TileService::Methods::size + LockService::Methods::size;
    EXPECT_EQ(methods, 43u);
}

TEST(ServiceTableTest, EverySchemaMethodRoutesAndOnlyWithItsOwnCallKind) {
    asio::io_context io;
    auto handler = ServiceCatalogue{}.makeHandler();
    ASSERT_EQ(handler->size(), 6u);
    int routed = 0;
    for (const auto* service : WireServices::all()) {
        for (int i = 0; i < service->method_count(); ++i) {
            const auto& method = *service->method(i);
            const auto path = WireServices::methodPath(method);
            const bool stream = method.server_streaming();

            // The right call kind reaches the (base) provider.
            CallRefusal answer;
            if (stream) {
                auto result = runOn(io, handler->stream(CallContext{}, path, ""));
                ASSERT_FALSE(result) << path;
                answer = result.error();
            } else {
                auto result = runOn(io, handler->unary(CallContext{}, path, ""));
                ASSERT_FALSE(result) << path;
                answer = result.error();
            }
            EXPECT_EQ(answer, CallRefusal::handlerError(path + " is not available on this server"));

            // The other call kind is an unknown method naming the expected kind.
            CallRefusal wrongKind;
            if (stream) {
                wrongKind = runOn(io, handler->unary(CallContext{}, path, "")).error();
            } else {
                wrongKind = runOn(io, handler->stream(CallContext{}, path, "")).error();
            }
            EXPECT_EQ(wrongKind, CallRefusal::wrongCallKind(path, stream));

            // A misspelt method of a known service is unknown, not a decode error.
            EXPECT_EQ(runOn(io, handler->unary(CallContext{}, path + "s", "\xff")).error(), CallRefusal::unknownMethod(path + "s"));
            ++routed;
        }
    }
    EXPECT_EQ(routed, 43);
}

TEST(ServiceTableTest, ClientStubsNameTheirMethodPaths) {
    EXPECT_EQ(TileServiceClient::path<&TileServiceProvider::watchTiles>(), "/ql4.transport.v1.TileService/WatchTiles");
    EXPECT_EQ(CopyServiceClient::path<&CopyServiceProvider::runCloner>(), "/ql4.transport.v1.CopyService/RunCloner");
    EXPECT_EQ(CopyServiceClient::path<&CopyServiceProvider::resumeRun>(), "/ql4.transport.v1.CopyService/ResumeRun");
    EXPECT_EQ(LockServiceClient::path<&LockServiceProvider::authorizeCopy>(), "/ql4.transport.v1.LockService/AuthorizeCopy");
}

}  // namespace
