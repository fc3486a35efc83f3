#pragma once

#include "QLProtocol/proto/tiles.pb.h"

#include <string>

namespace ql::testing {

// The job that save number k of the crash-safety writer adds (a few hundred bytes with its
// run history, so that the file grows to tens of kilobytes over the run).
inline ql4::transport::v1::CopyTile writerTile(int k) {
    ql4::transport::v1::CopyTile tile;
    tile.set_id("job-" + std::to_string(k));
    tile.set_name("Job number " + std::to_string(k) + " " + std::string(40, 'x'));
    tile.set_sort_order(k);
    for (int r = 0; r < 2; ++r) {
        auto* run = tile.add_recent_runs();
        run->set_id("run-" + std::to_string(k) + "-" + std::to_string(r));
        run->set_log_content(std::string(60, static_cast<char>('a' + r)));
    }
    return tile;
}

}  // namespace ql::testing
