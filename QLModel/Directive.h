#pragma once

#include "QLSupport/PropertyList.h"

#include <optional>
#include <string>
#include <string_view>

namespace ql {

// One line of a copy rule: a verb and the path pattern it applies to, stored in the document as
// a dictionary {"Directive": token, "Item": item, ...}. Keys other than those two are kept in
// `extraKeys`, in their order, and written back unchanged.
//
// Verbs (exact, case-sensitive tokens). Source side, what happens to matching source items:
//   "copy", "clone"        copied
//   "exclude", "ignore"    skipped
//   "optional"             copied when present; its absence or unreadability is no failure
// Destination side, what is kept on the destination:
//   "preserve"             kept even when the source does not have it
//   "preserve_if_absent"   kept only when the source does not have it ("preserveifabsent" and
//                          "preserve-if-absent" are accepted spellings)
// Any other token is kept in the document and written back, but does nothing.
struct Directive {
    std::string token;
    std::string item;
    PlistDictionary extraKeys;

    enum class Verb { copy, skip, optional, preserve, preserveIfAbsent, unknown };
    static Verb verbOf(std::string_view token);
    Verb verb() const { return verbOf(token); }

    // The item without its leading and trailing "/" characters: "/Users/ann/" → "Users/ann".
    // Rules match this form; an empty result never matches anything.
    static std::string_view normalizedItem(std::string_view item);
    std::string_view normalizedItem() const { return normalizedItem(item); }

    // "exclude" of "*" or ".*" with no extra keys: half of the pair that an include of
    // "Exclude all files.dset" replaces.
    bool isExcludeAll() const;

    friend bool operator==(const Directive&, const Directive&) = default;
};

}  // namespace ql
