#pragma once

#include <string>
#include <string_view>

namespace ql {

// Names of the files the engine writes before renaming them into place. They live in the
// destination directory of the final file (so the rename stays on one filesystem) and carry a
// prefix that no real run leaves behind: a later run removes any it finds (a killed run's).
class TempNames {
public:
    static constexpr std::string_view prefix = ".qlcopy-partial-";

    // A fresh name, unique within this process and across processes.
    static std::string make();
    static bool isTemporary(std::string_view name);
};

}  // namespace ql
