#include "QLProtocol/transport/SourceService.h"

namespace ql {

// The server adapter is instantiated once, here.
template class ServiceServer<SourceService>;

}  // namespace ql
