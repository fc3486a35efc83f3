#pragma once

#include "QLModel/CopyRuleDocument.h"

#include <cstddef>
#include <string_view>

namespace ql {

// Removing a rule's own directives for one path, when the user clears what the editor shows
// for an item. A directive is "for" the path when its item, without leading and trailing "/",
// equals the path (also taken without them). Directives of included rules are never touched:
// they live in their own documents.
struct CopyRuleDeletion {
    enum class Side {
        source,       // copy, clone, exclude, ignore, optional
        destination,  // preserve and its if-absent spellings
        all,          // every token, unknown ones included
    };

    // Removes the matching own directives and returns how many went.
    static std::size_t removeDirectives(CopyRuleDocument& document, std::string_view path, Side side = Side::all);
    // How many own directives `removeDirectives` would remove.
    static std::size_t countDirectives(const CopyRuleDocument& document, std::string_view path, Side side = Side::all);
};

}  // namespace ql
