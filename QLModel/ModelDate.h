#pragma once

#include "QLSupport/Iso8601.h"

#include <chrono>

namespace ql {

// An instant as the model records it: whole seconds in UTC. The model's JSON writes dates as
// ISO 8601 with whole seconds, so holding whole seconds makes every date survive a save and a
// load unchanged. Instants read from a clock are floored with `modelDate`.
using ModelDate = std::chrono::sys_seconds;

inline ModelDate modelDate(SystemTime instant) { return std::chrono::floor<std::chrono::seconds>(instant); }

}  // namespace ql
