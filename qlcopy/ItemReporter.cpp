#include "qlcopy/ItemReporter.h"

namespace ql {

ItemReporter::ItemReporter(EventWriter& events, bool enabled) : events_(events), enabled_(enabled) {}

void ItemReporter::source(const std::string& path, const char* action, bool selected, bool isDirectory,
                          const char* reason) {
    if (!enabled_) return;
    Json e = {{"type", "item"}, {"side", "src"}, {"path", path.empty() ? "/" : path}, {"action", action},
              {"sel", selected}, {"dir", isDirectory}};
    if (reason && *reason) e["reason"] = reason;
    events_.emit(std::move(e));
}

void ItemReporter::dest(const std::string& path, const char* action, bool isDirectory, const char* reason) {
    if (!enabled_) return;
    Json e = {{"type", "item"}, {"side", "dst"}, {"path", path.empty() ? "/" : path}, {"action", action},
              {"dir", isDirectory}};
    if (reason && *reason) e["reason"] = reason;
    events_.emit(std::move(e));
}

}  // namespace ql
