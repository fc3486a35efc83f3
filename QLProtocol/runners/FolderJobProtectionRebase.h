#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace ql {

// The engine takes protection patterns ("--optional", "--retain-on-error") relative to what it
// copies. The lists are written for a whole volume ("Users/*/Library/Logs/*"); for a folder job
// they are rewritten relative to the copied folder, segment by segment:
//
//   - a pattern whose leading segments match the folder's path and go on below it is kept,
//     re-rooted below the folder: "Users/*/Library/Logs/*" with root "Users/ann" becomes
//     "Library/Logs/*";
//   - a pattern that matches the folder itself or one of its ancestors covers everything copied
//     and becomes "*": with root "Users/ann/Library/Logs/x" the pattern above becomes "*";
//   - a pattern that leads elsewhere is dropped: with root "Users/ann/Documents" it is dropped;
//   - a pattern beginning "**/" (or using "**" within the folder's depth) cannot be placed
//     relative to the folder and is dropped.
//
// Segments match with shell wildcards ("*", "?", "[...]") inside one segment. Leading and
// repeated slashes and "." segments are ignored in both pattern and root.
struct FolderJobProtectionRebase {
    static std::vector<std::string> rebase(const std::vector<std::string>& patterns, std::string_view copyRoot);
};

}  // namespace ql
