#include "QLProtocol/transport/SystemService.h"

namespace ql {

// The server adapter is instantiated once, here.
template class ServiceServer<SystemService>;

}  // namespace ql
