#pragma once

#include "qlcopy/EventWriter.h"

#include <string>

namespace ql {

// Writes `item` events (with --emit-items): one per decision, for the source side ("src":
// add, update, keep or skip, with whether the rules select it) and the destination side ("dst":
// add, update, delete or keep). Paths are relative to the copy root with a leading "/".
class ItemReporter {
public:
    ItemReporter(EventWriter& events, bool enabled);

    bool enabled() const { return enabled_; }
    void source(const std::string& path, const char* action, bool selected, bool isDirectory, const char* reason);
    void dest(const std::string& path, const char* action, bool isDirectory, const char* reason);

private:
    EventWriter& events_;
    bool enabled_;
};

}  // namespace ql
