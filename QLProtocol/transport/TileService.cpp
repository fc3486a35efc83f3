#include "QLProtocol/transport/TileService.h"

namespace ql {

// The server adapter is instantiated once, here.
template class ServiceServer<TileService>;

}  // namespace ql
