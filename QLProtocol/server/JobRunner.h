#pragma once

#include "QLProtocol/proto/runs.pb.h"
#include "QLSupport/EventStream.h"

#include <asio.hpp>

namespace ql {

// The object that performs one run. Each runner is an actor of its own; the job manager never
// looks at which kind of runner it holds.
//
// `run()` starts the work and returns the run's event stream: `ClonerEvent` payloads (the job
// manager stamps the run id and the time), ending after exactly one terminal payload
// (`completed`, `failed` or `cancelled`). A stream that ends with a `StreamFailure` is a runner
// that threw: the run fails with the failure's text. A stream that ends without a terminal
// payload is given a synthetic failure by the job manager. Runners never emit `started` or
// `queued`; the job manager does. `run()` is called once.
class JobRunner {
public:
    using Events = EventStream<ql4::transport::v1::ClonerEvent>;

    virtual ~JobRunner() = default;

    virtual Events::Consumer run() = 0;

    // Asks the run to stop; the runner emits its own `cancelled` terminal.
    virtual asio::awaitable<void> cancel() = 0;

    // Ask the run to pause or resume; the result says whether the runner accepted the request
    // (a runner that has not started its engine yet, or has already ended, may refuse).
    virtual asio::awaitable<bool> pause() = 0;
    virtual asio::awaitable<bool> resume() = 0;
};

}  // namespace ql
