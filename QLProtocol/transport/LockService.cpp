#include "QLProtocol/transport/LockService.h"

namespace ql {

// The server adapter is instantiated once, here.
template class ServiceServer<LockService>;

}  // namespace ql
