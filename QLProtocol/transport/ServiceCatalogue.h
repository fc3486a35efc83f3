#pragma once

#include "QLProtocol/proto/WireServices.h"
#include "QLProtocol/transport/CopyService.h"
#include "QLProtocol/transport/DestinationService.h"
#include "QLProtocol/transport/LockService.h"
#include "QLProtocol/transport/MultiplexHandler.h"
#include "QLProtocol/transport/SourceService.h"
#include "QLProtocol/transport/SystemService.h"
#include "QLProtocol/transport/TileService.h"

#include <memory>
#include <string>
#include <vector>

namespace ql {

// The six services of the server, with the providers that back them. A provider left null is
// replaced by the service's base provider, which answers every method "… is not available on
// this server".
//
//     ServiceCatalogue catalogue;
//     catalogue.tiles = std::make_shared<LiveTileServiceProvider>(…);
//     auto handler = catalogue.makeHandler();
//     UDSServer server(executor, {.socketPath = SocketPath::serverDefault(), .sessions = sessions}, handler);
//     server.start();
struct ServiceCatalogue {
    std::shared_ptr<CopyServiceProvider> copy;
    std::shared_ptr<DestinationServiceProvider> destination;
    std::shared_ptr<SourceServiceProvider> source;
    std::shared_ptr<SystemServiceProvider> system;
    std::shared_ptr<TileServiceProvider> tiles;
    std::shared_ptr<LockServiceProvider> lock;

    // A router with all six server adapters registered under their full names.
    std::shared_ptr<MultiplexHandler> makeHandler() const;

    // Differences between a method table and the schema's service (missing or extra methods,
    // other request or response types, other call kinds); empty when they agree.
    template <typename Service>
    static std::vector<std::string> schemaMismatches();
};

template <typename Service>
std::vector<std::string> ServiceCatalogue::schemaMismatches() {
    std::vector<std::string> problems;
    const auto* descriptor = WireServices::find(Service::fullName);
    if (!descriptor) {
        problems.push_back(std::string(Service::fullName) + " is not in the schema");
        return problems;
    }
    if (static_cast<int>(Service::Methods::size) != descriptor->method_count()) {
        problems.push_back(std::string(Service::fullName) + ": the table has " + std::to_string(Service::Methods::size) +
                           " methods, the schema " + std::to_string(descriptor->method_count()));
    }
    Service::Methods::forEach([&](auto entry) {
        using M = typename decltype(entry)::type;
        const auto* method = descriptor->FindMethodByName(std::string(M::name));
        const std::string where = std::string(Service::fullName) + "/" + std::string(M::name);
        if (!method) {
            problems.push_back(where + " is not in the schema");
            return;
        }
        if (method->input_type() != M::Request::descriptor()) problems.push_back(where + ": other request type");
        if (method->output_type() != M::Response::descriptor()) problems.push_back(where + ": other response type");
        if (method->server_streaming() != M::serverStream) problems.push_back(where + ": other call kind");
    });
    return problems;
}

}  // namespace ql
