#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ql {

// Names of user copy rules. A rule's name is its file name without ".dset". Two names are the
// same name when they differ only in letter case or in the composed/decomposed form of an
// accented letter ("Café" and "CAFE\u0301" are one name), with or without a trailing ".dset".
struct CopyRuleNaming {
    // What a new rule is called until it is renamed.
    static constexpr std::string_view untitledName = "Untitled Copy Rule";

    enum class Collision {
        none,              // free
        builtin,           // the name of a built-in rule
        existingUserRule,  // the name of another user rule
        selfInclude,       // the rule would include itself
    };

    // The include list of the rule document with the given name ("Foo" or "Foo.dset"), or
    // nullopt when no such document is known.
    using IncludesOf = std::function<std::optional<std::vector<std::string>>(std::string_view name)>;

    struct Context {
        std::vector<std::string> builtinNames;        // from the client's rule catalogue
        std::vector<std::string> otherUserRuleNames;  // every user rule except the one being named
        std::vector<std::string> ownIncludes;         // the rule's own "Include Directives"
        IncludesOf includesOf;                        // for following includes of includes
    };

    // Case-folded, canonically composed, without a trailing ".dset": the form names compare in.
    static std::string comparisonKey(std::string_view name);
    static bool sameName(std::string_view a, std::string_view b);
    // The name a rule file shows: the file name without ".dset".
    static std::string displayName(std::string_view filename);

    // Checks a proposed name: built-in names first, then other user rules, then whether the
    // include graph reached from the rule's own includes (followed recursively, each name
    // visited once so cycles end) contains the proposed name.
    static Collision check(std::string_view proposed, const Context& context);

    // The name offered for a duplicate: name + " copy", then name + " copy 2", " copy 3", … —
    // the first one `isTaken` does not claim.
    static std::string duplicateName(std::string_view name, const std::function<bool(std::string_view)>& isTaken);
    // Same, against a list of names in use (compared as names).
    static std::string duplicateName(std::string_view name, const std::vector<std::string>& namesInUse);
};

}  // namespace ql
