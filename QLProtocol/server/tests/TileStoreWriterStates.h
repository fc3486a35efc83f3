#pragma once

#include "QLProtocol/proto/tiles.pb.h"

#include <string>

namespace ql::testing {

// The job that save number k of the crash-safety writer adds (about 1.5 KB, so that the whole
// file grows to a few hundred kilobytes over the run).
inline ql4::transport::v1::CopyTile writerTile(int k) {
    ql4::transport::v1::CopyTile tile;
    tile.set_id("job-" + std::to_string(k));
    tile.set_name("Job number " + std::to_string(k) + " " + std::string(200, 'x'));
    tile.set_sort_order(k);
    for (int r = 0; r < 4; ++r) {
        auto* run = tile.add_recent_runs();
        run->set_id("run-" + std::to_string(k) + "-" + std::to_string(r));
        run->set_log_content(std::string(250, static_cast<char>('a' + r)));
    }
    return tile;
}

}  // namespace ql::testing
