#pragma once

#include <cstdint>

namespace ql {

// The format of the copy engine's per-job state file. The engine writes it into the file; the
// server keeps the file's contents in the job store between runs and hands a stored state of
// another format to no engine.
inline constexpr std::uint32_t kEngineStateFormat = 1;

}  // namespace ql
