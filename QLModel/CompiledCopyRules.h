#pragma once

#include "QLModel/CopyRuleDisposition.h"
#include "QLModel/Glob.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace ql {

class CopyRuleSet;

// A copy rule compiled once for the engine's walk. The answers are exactly those of
// `CopyRuleDisposition` for every path; what differs is how they are reached: tree-wise, one
// directory entry at a time, from the parent's partial result, with no allocation per entry or
// per directive once the walk has warmed up.
//
// How it works. Every directive's glob becomes a chain of segment matchers; together they form
// one automaton over path segments. A `RuleCursor` stands for one path: the set of automaton
// states still alive after its segments (interned, so a cursor holds only its number) and, for
// each of the three searches (copy/skip, optional, preserve), the best directive matched by the
// path or any ancestor so far. Because a directive that matches an ancestor matches every
// descendant, the child's best is the better of the parent's best and the directives that match
// the child's own path; "better" is the deeper literal anchor, then the later directive, which is
// a fixed ranking computed at compile time.
//
// Use:
//
//     auto set = CopyRuleSet::load(rulePath, {searchDirs, /*strictIncludes=*/true});   // once
//     CompiledCopyRules rules = CompiledCopyRules::compile(*set);                        // once
//     CopyRuleWalker walker(rules);                                  // one per walking thread
//     RuleCursor root = walker.root();                               // the volume root
//     for (each entry `name` of a directory whose cursor is `dir`) {
//         RuleCursor c = walker.child(dir, name);                    // O(matchers alive here)
//         switch (walker.disposition(c)) { copy / skip / optional }
//         if (auto keep = walker.preserveKind(c)) { ... destination side ... }
//         if (isDirectory) remember c for the directory's own entries;
//         if (walker.isSettled(c)) the whole subtree below shares c's answers;
//         if (skipped && !walker.mayCopyBelow(c)) the folder need not be walked at all;
//         if (!walker.mayPreserveBelow(c)) nothing below is kept on the destination.
//     }
//
// A skipped folder may still hold items a deeper directive copies ("exclude Users" then
// "copy Users/ann"); `mayCopyBelow` says when the walk must descend into it anyway. Rules do not
// distinguish files from folders, so `child` needs only the name.
//
// Threads. `CompiledCopyRules` is immutable and may be shared. A `CopyRuleWalker` caches the
// automaton states it meets and is not thread-safe: give each thread its own. A cursor is only
// meaningful to the walker that made it (it is a 16-byte value: copy it freely, store it with
// the directory it belongs to). The walker's cache grows with the distinct states a walk meets,
// which is small for real rules (states differ only inside folders that directives name).
class CompiledCopyRules {
public:
    using MergedDirective = CopyRuleDisposition::MergedDirective;

    static CompiledCopyRules compile(std::vector<MergedDirective> directives);
    static CompiledCopyRules compile(const CopyRuleSet& set);
    static CompiledCopyRules compile(const CopyRuleDocument& document, const CopyRuleDisposition::IncludeLookup& lookup);

    const std::vector<MergedDirective>& directives() const { return impl_->directives; }

    // Directives that can never match anything, with the reason: an empty item, an invalid glob
    // (the directive stays in the document as text), an empty path segment ("a//b").
    struct InertDirective {
        std::size_t index;   // into directives()
        std::string reason;
    };
    const std::vector<InertDirective>& inertDirectives() const { return impl_->inert; }

    // One path at a time, for tools and tests; the walk uses `CopyRuleWalker`.
    CopyRuleDisposition::Evaluation evaluate(std::string_view path) const;

private:
    friend class CopyRuleWalker;

    enum Search : int { sourceSearch = 0, optionalSearch = 1, preserveSearch = 2, noSearch = 3 };

    // One automaton state: a position in one directive's segment chain.
    struct State {
        std::uint32_t directive = 0;
        const Glob::Segment* segment = nullptr;  // nullptr: the end of the chain (the directive matches)
    };
    struct Ranked {
        std::uint32_t directive = 0;
        int literalDepth = 0;
        CopyRuleDisposition::Disposition disposition = CopyRuleDisposition::Disposition::copy;
        CopyRuleDisposition::DestPreserveKind preserveKind = CopyRuleDisposition::DestPreserveKind::preserve;
    };
    struct Impl {
        std::vector<MergedDirective> directives;
        std::vector<Glob> globs;              // per directive (empty pattern for inert ones)
        std::vector<int> search;              // per directive: Search
        std::vector<std::int32_t> rank;       // per directive: 1-based rank within its search, 0 if none
        std::vector<std::uint32_t> firstState;
        std::vector<State> states;
        std::vector<std::uint32_t> initial;   // closed start set
        std::vector<Ranked> ranked[3];        // rank - 1 → directive facts
        std::vector<InertDirective> inert;
    };
    std::shared_ptr<const Impl> impl_;
};

// Where a walk stands: one path's compiled state. Plain data; see `CompiledCopyRules`.
struct RuleCursor {
    std::uint32_t stateSet = 0;
    std::int32_t best[3] = {0, 0, 0};  // rank of the winning directive per search, 0 = none
    friend bool operator==(const RuleCursor&, const RuleCursor&) = default;
};

// The per-thread evaluator of a compiled rule set.
class CopyRuleWalker {
public:
    explicit CopyRuleWalker(const CompiledCopyRules& rules);

    // The volume root itself: no directive applies to it (its answer is the default).
    RuleCursor root() const { return RuleCursor{}; }
    // The entry `name` (one path component, no "/") of the folder at `parent`.
    RuleCursor child(const RuleCursor& parent, std::string_view name);
    // The cursor of a volume-relative path, descending from the root ("/" and empty components
    // are skipped, as the per-path rule does).
    RuleCursor cursorFor(std::string_view path);

    // The source answer: copy, skip, or optional.
    CopyRuleDisposition::Disposition disposition(const RuleCursor& cursor) const;
    // The destination answer: whether a preserve directive keeps the item, and how.
    std::optional<CopyRuleDisposition::DestPreserveKind> preserveKind(const RuleCursor& cursor) const;
    // True when no directive can match anything below this path: every descendant has the
    // same answers as the cursor itself.
    bool isSettled(const RuleCursor& cursor) const;
    // False only when nothing below this path can be copied or made optional: a skipped folder
    // for which this is false need not be walked. (It may say true where in the end nothing is
    // copied; it never says false where something would be.)
    bool mayCopyBelow(const RuleCursor& cursor) const;
    // False only when nothing below this path can be kept on the destination by a preserve
    // directive: a destination folder for which this is false may be removed whole.
    bool mayPreserveBelow(const RuleCursor& cursor) const;

    // The directive that decided the source answer (nullptr for the default) and the one that
    // keeps the item on the destination (nullptr when none does).
    const CompiledCopyRules::MergedDirective* sourceDirective(const RuleCursor& cursor) const;
    const CompiledCopyRules::MergedDirective* preserveDirective(const RuleCursor& cursor) const;
    // The full answers with provenance and matched item (these copy strings).
    CopyRuleDisposition::Resolved resolved(const RuleCursor& cursor) const;
    std::optional<CopyRuleDisposition::DestPreserve> destPreserve(const RuleCursor& cursor) const;
    CopyRuleDisposition::Evaluation evaluation(const RuleCursor& cursor) const;

    // How many distinct automaton state sets this walker has met (for tests and diagnostics).
    std::size_t stateSetCount() const { return sets_.size(); }

private:
    static constexpr std::uint32_t kNone = UINT32_MAX;

    struct LiteralEdge {
        std::string_view name;
        std::uint32_t targetsBegin = 0, targetsEnd = 0;  // into edgeTargets_
        std::uint32_t next = kNone;                       // cached set when only this literal hits
    };
    struct WildcardEdge {
        const Glob::Segment* segment = nullptr;
        std::uint32_t targetsBegin = 0, targetsEnd = 0;
    };
    struct StateSet {
        std::vector<std::uint32_t> states;   // sorted, closed
        std::int32_t acceptRank[3] = {0, 0, 0};
        // The best rank among directives still on their way to a match, per search, counting
        // only copying directives for the copy/skip search.
        std::int32_t liveCopyRank = 0;
        std::int32_t liveRank[3] = {0, 0, 0};
        std::vector<std::uint32_t> stay;     // globstar states: alive after any segment
        std::vector<LiteralEdge> literals;
        std::unordered_map<std::string_view, std::uint32_t> literalIndex;  // only when many literals
        std::vector<WildcardEdge> wildcards;
        std::uint32_t missNext = kNone;      // cached set when nothing but the globstars matches
        std::unordered_map<std::uint64_t, std::uint32_t> comboNext;  // (literal, wildcard mask) → set
    };
    struct VectorHash {
        std::size_t operator()(const std::vector<std::uint32_t>& v) const noexcept;
    };

    std::uint32_t intern(std::vector<std::uint32_t>& closedSortedStates);
    void close(std::vector<std::uint32_t>& states) const;
    std::uint32_t transition(std::uint32_t set, std::uint32_t literal, std::uint64_t mask, std::string_view name);

    std::shared_ptr<const CompiledCopyRules::Impl> rules_;
    std::vector<std::unique_ptr<StateSet>> sets_;
    std::unordered_map<std::vector<std::uint32_t>, std::uint32_t, VectorHash> setIds_;
    std::vector<std::uint32_t> edgeTargets_;
    std::vector<std::uint32_t> scratch_;
};

}  // namespace ql
