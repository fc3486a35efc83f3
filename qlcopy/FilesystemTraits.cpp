#include "qlcopy/FilesystemTraits.h"

#include <time.h>

#include <cstdlib>

namespace ql {

bool FilesystemTraits::sameTime(const struct timespec& a, const struct timespec& b, std::int64_t granularityNs) {
    if (a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec) return true;
    if (a.tv_sec == b.tv_sec && (a.tv_nsec == 0 || b.tv_nsec == 0)) return true;
    if (granularityNs <= 1) return false;
    const __int128 an = static_cast<__int128>(a.tv_sec) * 1000000000 + a.tv_nsec;
    const __int128 bn = static_cast<__int128>(b.tv_sec) * 1000000000 + b.tv_nsec;
    const __int128 diff = an > bn ? an - bn : bn - an;
    return diff < granularityNs;
}

}  // namespace ql
