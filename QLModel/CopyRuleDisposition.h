#pragma once

#include "QLModel/CopyRuleDocument.h"
#include "QLModel/Directive.h"

#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ql {

// What a copy rule does to one volume-relative path: whether the source item is copied,
// skipped or copied optionally, which directive decided that and where it came from, and
// whether a preserve directive keeps the item on the destination.
//
// This is the reference form, one path at a time, used by the editor and the preview;
// `CompiledCopyRules` gives the same answers tree-wise for the engine.
//
// The rules, over the merged directive list (included documents first, then the rule's own):
//  - A directive's item, without leading and trailing "/", is a `Glob`. It matches a path when
//    it matches at least one of the path's ancestors (Users, Users/ann, Users/ann/Library for
//    Users/ann/Library), so a directive on a folder decides everything inside it. An empty item,
//    or one that is not a valid glob, never matches.
//  - Its specificity is the depth of its literal anchor: the item's leading segments up to the
//    first one holding a wildcard, counted when they name the path's leading segments; else 0.
//  - Among the matching copy/clone/exclude/ignore directives the first is taken, and each later
//    one replaces it when its specificity is greater or equal: the deeper anchor wins, and the
//    later directive wins a tie. No match means the built-in default, copy, from `base`.
//  - The "optional" directives are searched the same way on their own; the winner applies when
//    its specificity is at least that of the copy/skip decision (or there is none).
//  - The preserve directives are searched the same way on their own and reported alongside as
//    the `DestPreserve`.
struct CopyRuleDisposition {
    enum class Disposition { copy, skip, optional };

    // Where the deciding directive came from.
    struct Provenance {
        enum class Kind { rule, base, own };
        Kind kind = Kind::base;
        std::string ruleName;  // `rule` only: the included document that holds the directive

        static Provenance rule(std::string name) { return {Kind::rule, std::move(name)}; }
        static Provenance base() { return {Kind::base, {}}; }
        static Provenance own() { return {Kind::own, {}}; }
        friend bool operator==(const Provenance&, const Provenance&) = default;
    };

    struct Resolved {
        Disposition disposition = Disposition::copy;
        Provenance provenance;
        std::optional<std::string> matchedItem;  // the deciding directive's item, as written
        // "skip by “Users/ann” (own)", "copy (default)", for logs.
        std::string description() const;
        friend bool operator==(const Resolved&, const Resolved&) = default;
    };

    struct MergedDirective {
        Directive directive;
        std::optional<std::string> origin;  // the included rule's name; absent for own directives
        friend bool operator==(const MergedDirective&, const MergedDirective&) = default;
    };

    enum class DestPreserveKind { preserve, preserveIfAbsent };

    struct DestPreserve {
        DestPreserveKind kind = DestPreserveKind::preserve;
        Provenance provenance;
        std::optional<std::string> matchedItem;
        std::string description() const;
        friend bool operator==(const DestPreserve&, const DestPreserve&) = default;
    };

    // The whole answer for one path.
    struct Evaluation {
        Resolved source;
        std::optional<DestPreserve> preserve;
        std::string description() const;
        friend bool operator==(const Evaluation&, const Evaluation&) = default;
    };

    // Labels the editor shows: "Copy", "Skip", "Make optional"; a destination preserve is "Keep".
    static std::string_view label(Disposition disposition);
    static constexpr std::string_view keepLabel = "Keep";

    static std::optional<Disposition> sourceDisposition(std::string_view token);
    static std::optional<DestPreserveKind> destPreserveKind(std::string_view token);

    // ---- Merging a document with its includes.

    // Finds an included document by its include name ("Exclude all files.dset"); nullptr when
    // there is none.
    using IncludeLookup = std::function<const CopyRuleDocument*(std::string_view name)>;

    struct IncludeProblem {
        enum class Kind { missing, cycle, depthLimit };
        Kind kind = Kind::missing;
        std::string name;                // the include that could not be followed
        std::vector<std::string> chain;  // the includes leading to it, outermost first
        std::string message() const;
        friend bool operator==(const IncludeProblem&, const IncludeProblem&) = default;
    };

    struct Merged {
        std::vector<MergedDirective> directives;
        std::vector<IncludeProblem> problems;
    };

    // Included documents nest at most this deep.
    static constexpr int maxIncludeDepth = 16;

    // The merged list: each include in order contributes its own includes' directives and then
    // its own directives (origin: that include's name), and the document's own directives
    // follow (no origin). A document reached a second time (two rules both include the same
    // one) contributes only where it was first reached; an include that leads back to a
    // document being expanded, one the lookup cannot find, or one nested deeper than
    // `maxIncludeDepth` contributes nothing and is reported.
    static Merged merge(const CopyRuleDocument& document, const IncludeLookup& lookup);
    // A document's own directives alone, as a merged list.
    static std::vector<MergedDirective> ownDirectives(const CopyRuleDocument& document);

    // ---- The per-path answer.

    // The path's ancestors, shortest first; empty components are dropped.
    static std::vector<std::string> ancestors(std::string_view path);
    // The directive's specificity for the path when it matches, nullopt when it does not.
    static std::optional<int> match(const Directive& directive, std::string_view path);
    // Same, over precomputed ancestors.
    static std::optional<int> match(const Directive& directive, const std::vector<std::string>& ancestors);

    // The copy/skip decision alone (nullopt: no directive matched).
    static std::optional<Resolved> copySkipDecision(const std::vector<MergedDirective>& directives, std::string_view path);
    // The winning "optional" directive alone.
    static std::optional<Resolved> optionalDecision(const std::vector<MergedDirective>& directives, std::string_view path);
    // The copy/skip decision with the optional directive applied and the default filled in.
    static Resolved resolve(const std::vector<MergedDirective>& directives, std::string_view path);
    static std::optional<DestPreserve> destPreserve(const std::vector<MergedDirective>& directives, std::string_view path);
    static Evaluation evaluate(const std::vector<MergedDirective>& directives, std::string_view path);
};

std::ostream& operator<<(std::ostream& out, const CopyRuleDisposition::Resolved& value);
std::ostream& operator<<(std::ostream& out, const CopyRuleDisposition::DestPreserve& value);
std::ostream& operator<<(std::ostream& out, const CopyRuleDisposition::Evaluation& value);

}  // namespace ql
