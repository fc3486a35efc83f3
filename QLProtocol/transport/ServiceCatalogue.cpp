#include "QLProtocol/transport/ServiceCatalogue.h"

namespace ql {

namespace {
template <typename Provider>
std::shared_ptr<Provider> orBase(const std::shared_ptr<Provider>& provider) {
    return provider ? provider : std::make_shared<Provider>();
}
}  // namespace

std::shared_ptr<MultiplexHandler> ServiceCatalogue::makeHandler() const {
    auto handler = std::make_shared<MultiplexHandler>();
    handler->add(std::make_shared<CopyServiceServer>(orBase(copy)));
    handler->add(std::make_shared<DestinationServiceServer>(orBase(destination)));
    handler->add(std::make_shared<SourceServiceServer>(orBase(source)));
    handler->add(std::make_shared<SystemServiceServer>(orBase(system)));
    handler->add(std::make_shared<TileServiceServer>(orBase(tiles)));
    handler->add(std::make_shared<LockServiceServer>(orBase(lock)));
    return handler;
}

}  // namespace ql
