#include "QLProtocol/transport/DestinationService.h"

namespace ql {

// The server adapter is instantiated once, here.
template class ServiceServer<DestinationService>;

}  // namespace ql
