#include "QLProtocol/transport/CopyService.h"

namespace ql {

// The server adapter is instantiated once, here.
template class ServiceServer<CopyService>;

}  // namespace ql
