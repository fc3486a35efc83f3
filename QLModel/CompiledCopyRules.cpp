#include "QLModel/CompiledCopyRules.h"

#include "QLModel/CopyRuleSet.h"

#include <algorithm>
#include <cstring>
#include <tuple>

namespace ql {

namespace {

using Disposition = CopyRuleDisposition::Disposition;
using DestPreserveKind = CopyRuleDisposition::DestPreserveKind;
using Provenance = CopyRuleDisposition::Provenance;

// Sets with more literal edges than this look names up in a hash table instead of comparing.
constexpr std::size_t kLinearLiteralLimit = 8;
// Wildcard edges beyond this many in one set are not cached by match mask.
constexpr std::size_t kMaskBits = 48;

Provenance provenanceOf(const CopyRuleDisposition::MergedDirective& d) {
    return d.origin ? Provenance::rule(*d.origin) : Provenance::own();
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Compilation

CompiledCopyRules CompiledCopyRules::compile(std::vector<MergedDirective> directives) {
    auto impl = std::make_shared<Impl>();
    impl->directives = std::move(directives);
    const std::size_t n = impl->directives.size();
    impl->globs.reserve(n);
    impl->search.assign(n, noSearch);
    impl->rank.assign(n, 0);
    impl->firstState.assign(n, UINT32_MAX);
    std::vector<int> literalDepth(n, 0);

    for (std::size_t i = 0; i < n; ++i) {
        const Directive& d = impl->directives[i].directive;
        switch (d.verb()) {
            case Directive::Verb::copy:
            case Directive::Verb::skip: impl->search[i] = sourceSearch; break;
            case Directive::Verb::optional: impl->search[i] = optionalSearch; break;
            case Directive::Verb::preserve:
            case Directive::Verb::preserveIfAbsent: impl->search[i] = preserveSearch; break;
            case Directive::Verb::unknown: break;
        }
        const std::string_view item = d.normalizedItem();
        std::string inertReason;
        auto glob = Glob::compile(item);
        if (item.empty()) {
            inertReason = "its item is empty";
        } else if (!glob) {
            inertReason = glob.error().message();
        } else {
            for (const auto& seg : glob->segments()) {
                if (seg.kind == Glob::Segment::Kind::literal && seg.text.empty()) {
                    inertReason = "its item has an empty path segment (“//”)";
                    break;
                }
            }
        }
        if (!inertReason.empty()) {
            if (impl->search[i] != noSearch) impl->inert.push_back({i, inertReason});
            impl->search[i] = noSearch;
            impl->globs.push_back(Glob::compile("").value());
            continue;
        }
        for (const auto& seg : glob->segments()) {
            if (seg.kind != Glob::Segment::Kind::literal) break;
            ++literalDepth[i];
        }
        impl->globs.push_back(std::move(*glob));
    }

    // Automaton states, now that the globs (which the states point into) stay put.
    for (std::size_t i = 0; i < n; ++i) {
        if (impl->search[i] == noSearch) continue;
        impl->firstState[i] = static_cast<std::uint32_t>(impl->states.size());
        for (const auto& seg : impl->globs[i].segments()) {
            impl->states.push_back(State{static_cast<std::uint32_t>(i), &seg});
        }
        impl->states.push_back(State{static_cast<std::uint32_t>(i), nullptr});
        impl->initial.push_back(impl->firstState[i]);
    }
    // Close the start set over globstars (a globstar also stands for the state after it).
    for (std::size_t k = 0; k < impl->initial.size(); ++k) {
        const State& s = impl->states[impl->initial[k]];
        if (s.segment && s.segment->kind == Glob::Segment::Kind::globstar) impl->initial.push_back(impl->initial[k] + 1);
    }
    std::sort(impl->initial.begin(), impl->initial.end());
    impl->initial.erase(std::unique(impl->initial.begin(), impl->initial.end()), impl->initial.end());

    // Rank each search's directives by (literal depth, position): the higher rank wins.
    for (int search = 0; search < 3; ++search) {
        std::vector<std::uint32_t> members;
        for (std::size_t i = 0; i < n; ++i) {
            if (impl->search[i] == search) members.push_back(static_cast<std::uint32_t>(i));
        }
        std::stable_sort(members.begin(), members.end(), [&](std::uint32_t a, std::uint32_t b) {
            return std::tie(literalDepth[a], a) < std::tie(literalDepth[b], b);
        });
        for (std::size_t r = 0; r < members.size(); ++r) {
            const std::uint32_t i = members[r];
            impl->rank[i] = static_cast<std::int32_t>(r + 1);
            Ranked info;
            info.directive = i;
            info.literalDepth = literalDepth[i];
            const std::string& token = impl->directives[i].directive.token;
            if (auto disp = CopyRuleDisposition::sourceDisposition(token)) info.disposition = *disp;
            if (auto kind = CopyRuleDisposition::destPreserveKind(token)) info.preserveKind = *kind;
            impl->ranked[search].push_back(info);
        }
    }

    CompiledCopyRules rules;
    rules.impl_ = std::move(impl);
    return rules;
}

CompiledCopyRules CompiledCopyRules::compile(const CopyRuleSet& set) { return compile(set.merged().directives); }

CompiledCopyRules CompiledCopyRules::compile(const CopyRuleDocument& document,
                                             const CopyRuleDisposition::IncludeLookup& lookup) {
    return compile(CopyRuleDisposition::merge(document, lookup).directives);
}

CopyRuleDisposition::Evaluation CompiledCopyRules::evaluate(std::string_view path) const {
    CopyRuleWalker walker(*this);
    return walker.evaluation(walker.cursorFor(path));
}

// ---------------------------------------------------------------------------------------------
// Walking

std::size_t CopyRuleWalker::VectorHash::operator()(const std::vector<std::uint32_t>& v) const noexcept {
    std::uint64_t h = 1469598103934665603ull;
    for (std::uint32_t x : v) {
        h ^= x;
        h *= 1099511628211ull;
    }
    return static_cast<std::size_t>(h ^ (h >> 29));
}

CopyRuleWalker::CopyRuleWalker(const CompiledCopyRules& rules) : rules_(rules.impl_) {
    std::vector<std::uint32_t> initial = rules_->initial;
    intern(initial);  // id 0: the root's set, which `root()` refers to
}

void CopyRuleWalker::close(std::vector<std::uint32_t>& states) const {
    for (std::size_t k = 0; k < states.size(); ++k) {
        const auto& s = rules_->states[states[k]];
        if (s.segment && s.segment->kind == Glob::Segment::Kind::globstar) states.push_back(states[k] + 1);
    }
    std::sort(states.begin(), states.end());
    states.erase(std::unique(states.begin(), states.end()), states.end());
}

std::uint32_t CopyRuleWalker::intern(std::vector<std::uint32_t>& states) {
    if (auto it = setIds_.find(states); it != setIds_.end()) return it->second;

    const auto& impl = *rules_;
    auto set = std::make_unique<StateSet>();
    set->states = states;
    std::unordered_map<std::string_view, std::uint32_t> literalGroups;
    std::unordered_map<std::string_view, std::uint32_t> wildcardGroups;
    std::vector<std::vector<std::uint32_t>> literalTargets;
    std::vector<std::vector<std::uint32_t>> wildcardTargets;
    for (std::uint32_t id : states) {
        const CompiledCopyRules::State& s = impl.states[id];
        const int search = impl.search[s.directive];
        const std::int32_t rank = impl.rank[s.directive];
        if (!s.segment) {
            set->acceptRank[search] = std::max(set->acceptRank[search], rank);
            continue;
        }
        set->liveRank[search] = std::max(set->liveRank[search], rank);
        if (search == CompiledCopyRules::sourceSearch &&
            impl.ranked[search][static_cast<std::size_t>(rank - 1)].disposition == Disposition::copy) {
            set->liveCopyRank = std::max(set->liveCopyRank, rank);
        }
        switch (s.segment->kind) {
            case Glob::Segment::Kind::globstar: set->stay.push_back(id); break;
            case Glob::Segment::Kind::literal: {
                auto [it, fresh] = literalGroups.try_emplace(s.segment->text, static_cast<std::uint32_t>(literalTargets.size()));
                if (fresh) {
                    literalTargets.emplace_back();
                    set->literals.push_back(LiteralEdge{s.segment->text});
                }
                literalTargets[it->second].push_back(id + 1);
                break;
            }
            case Glob::Segment::Kind::wildcard: {
                auto [it, fresh] = wildcardGroups.try_emplace(s.segment->text, static_cast<std::uint32_t>(wildcardTargets.size()));
                if (fresh) {
                    wildcardTargets.emplace_back();
                    set->wildcards.push_back(WildcardEdge{s.segment});
                }
                wildcardTargets[it->second].push_back(id + 1);
                break;
            }
        }
    }
    for (std::size_t k = 0; k < set->literals.size(); ++k) {
        set->literals[k].targetsBegin = static_cast<std::uint32_t>(edgeTargets_.size());
        edgeTargets_.insert(edgeTargets_.end(), literalTargets[k].begin(), literalTargets[k].end());
        set->literals[k].targetsEnd = static_cast<std::uint32_t>(edgeTargets_.size());
    }
    for (std::size_t k = 0; k < set->wildcards.size(); ++k) {
        set->wildcards[k].targetsBegin = static_cast<std::uint32_t>(edgeTargets_.size());
        edgeTargets_.insert(edgeTargets_.end(), wildcardTargets[k].begin(), wildcardTargets[k].end());
        set->wildcards[k].targetsEnd = static_cast<std::uint32_t>(edgeTargets_.size());
    }
    if (set->literals.size() > kLinearLiteralLimit) {
        for (std::size_t k = 0; k < set->literals.size(); ++k) {
            set->literalIndex.emplace(set->literals[k].name, static_cast<std::uint32_t>(k));
        }
    }
    const auto id = static_cast<std::uint32_t>(sets_.size());
    sets_.push_back(std::move(set));
    setIds_.emplace(states, id);
    return id;
}

std::uint32_t CopyRuleWalker::transition(std::uint32_t setId, std::uint32_t literal, std::uint64_t mask,
                                         std::string_view name) {
    StateSet& s = *sets_[setId];
    const bool maskValid = s.wildcards.size() <= kMaskBits && (literal == kNone || literal < 0xFFFF);
    std::uint32_t* slot = nullptr;
    std::uint64_t comboKey = 0;
    if (maskValid) {
        if (mask == 0) {
            slot = literal == kNone ? &s.missNext : &s.literals[literal].next;
            if (*slot != kNone) return *slot;
        } else {
            comboKey = (static_cast<std::uint64_t>(literal == kNone ? 0xFFFF : literal) << kMaskBits) | mask;
            if (auto it = s.comboNext.find(comboKey); it != s.comboNext.end()) return it->second;
        }
    }

    scratch_.clear();
    scratch_.insert(scratch_.end(), s.stay.begin(), s.stay.end());
    if (literal != kNone) {
        const LiteralEdge& e = s.literals[literal];
        scratch_.insert(scratch_.end(), edgeTargets_.begin() + e.targetsBegin, edgeTargets_.begin() + e.targetsEnd);
    }
    for (std::size_t k = 0; k < s.wildcards.size(); ++k) {
        const bool hit = k < kMaskBits ? (mask >> k) & 1 : Glob::matchSegment(*s.wildcards[k].segment, name);
        if (hit) {
            const WildcardEdge& e = s.wildcards[k];
            scratch_.insert(scratch_.end(), edgeTargets_.begin() + e.targetsBegin, edgeTargets_.begin() + e.targetsEnd);
        }
    }
    close(scratch_);
    const std::uint32_t next = intern(scratch_);
    // `s` is still valid (sets are held by pointer); `slot` points into it.
    if (maskValid) {
        if (slot) {
            *slot = next;
        } else {
            s.comboNext.emplace(comboKey, next);
        }
    }
    return next;
}

RuleCursor CopyRuleWalker::child(const RuleCursor& parent, std::string_view name) {
    const StateSet& s = *sets_[parent.stateSet];
    if (s.states.empty()) return parent;  // settled: nothing below can match

    std::uint32_t literal = kNone;
    if (!s.literalIndex.empty()) {
        if (auto it = s.literalIndex.find(name); it != s.literalIndex.end()) literal = it->second;
    } else {
        for (std::size_t k = 0; k < s.literals.size(); ++k) {
            const std::string_view lit = s.literals[k].name;
            if (lit.size() == name.size() && std::memcmp(lit.data(), name.data(), name.size()) == 0) {
                literal = static_cast<std::uint32_t>(k);
                break;
            }
        }
    }
    std::uint64_t mask = 0;
    const std::size_t tested = std::min(s.wildcards.size(), kMaskBits);
    for (std::size_t k = 0; k < tested; ++k) {
        if (Glob::matchSegment(*s.wildcards[k].segment, name)) mask |= std::uint64_t{1} << k;
    }
    RuleCursor c;
    c.stateSet = transition(parent.stateSet, literal, mask, name);
    const StateSet& n = *sets_[c.stateSet];
    for (int k = 0; k < 3; ++k) c.best[k] = std::max(parent.best[k], n.acceptRank[k]);
    return c;
}

RuleCursor CopyRuleWalker::cursorFor(std::string_view path) {
    RuleCursor c = root();
    std::size_t start = 0;
    while (start <= path.size()) {
        const std::size_t slash = path.find('/', start);
        const std::size_t end = slash == std::string_view::npos ? path.size() : slash;
        if (end > start) c = child(c, path.substr(start, end - start));
        if (slash == std::string_view::npos) break;
        start = slash + 1;
    }
    return c;
}

bool CopyRuleWalker::isSettled(const RuleCursor& cursor) const { return sets_[cursor.stateSet]->states.empty(); }

// Bests only grow along a path, and the copy/skip winner's anchor only deepens, so an item below
// can be copied only through a live copying directive that outranks the current winner, and made
// optional only through a live optional directive that outranks the current optional one.
bool CopyRuleWalker::mayCopyBelow(const RuleCursor& cursor) const {
    if (disposition(cursor) != Disposition::skip) return true;
    const StateSet& s = *sets_[cursor.stateSet];
    return s.liveCopyRank > cursor.best[CompiledCopyRules::sourceSearch] ||
           s.liveRank[CompiledCopyRules::optionalSearch] > cursor.best[CompiledCopyRules::optionalSearch];
}

bool CopyRuleWalker::mayPreserveBelow(const RuleCursor& cursor) const {
    if (cursor.best[CompiledCopyRules::preserveSearch] != 0) return true;
    return sets_[cursor.stateSet]->liveRank[CompiledCopyRules::preserveSearch] > 0;
}

CopyRuleDisposition::Disposition CopyRuleWalker::disposition(const RuleCursor& cursor) const {
    const auto& impl = *rules_;
    const std::int32_t src = cursor.best[CompiledCopyRules::sourceSearch];
    const std::int32_t opt = cursor.best[CompiledCopyRules::optionalSearch];
    if (opt && (!src || impl.ranked[CompiledCopyRules::optionalSearch][opt - 1].literalDepth >=
                            impl.ranked[CompiledCopyRules::sourceSearch][src - 1].literalDepth)) {
        return Disposition::optional;
    }
    if (src) return impl.ranked[CompiledCopyRules::sourceSearch][src - 1].disposition;
    return Disposition::copy;
}

std::optional<CopyRuleDisposition::DestPreserveKind> CopyRuleWalker::preserveKind(const RuleCursor& cursor) const {
    const std::int32_t r = cursor.best[CompiledCopyRules::preserveSearch];
    if (!r) return std::nullopt;
    return rules_->ranked[CompiledCopyRules::preserveSearch][r - 1].preserveKind;
}

const CompiledCopyRules::MergedDirective* CopyRuleWalker::sourceDirective(const RuleCursor& cursor) const {
    const auto& impl = *rules_;
    const std::int32_t src = cursor.best[CompiledCopyRules::sourceSearch];
    const std::int32_t opt = cursor.best[CompiledCopyRules::optionalSearch];
    if (disposition(cursor) == Disposition::optional) {
        return &impl.directives[impl.ranked[CompiledCopyRules::optionalSearch][opt - 1].directive];
    }
    if (src) return &impl.directives[impl.ranked[CompiledCopyRules::sourceSearch][src - 1].directive];
    return nullptr;
}

const CompiledCopyRules::MergedDirective* CopyRuleWalker::preserveDirective(const RuleCursor& cursor) const {
    const std::int32_t r = cursor.best[CompiledCopyRules::preserveSearch];
    if (!r) return nullptr;
    return &rules_->directives[rules_->ranked[CompiledCopyRules::preserveSearch][r - 1].directive];
}

CopyRuleDisposition::Resolved CopyRuleWalker::resolved(const RuleCursor& cursor) const {
    const auto* d = sourceDirective(cursor);
    if (!d) return {Disposition::copy, Provenance::base(), std::nullopt};
    return {disposition(cursor), provenanceOf(*d), d->directive.item};
}

std::optional<CopyRuleDisposition::DestPreserve> CopyRuleWalker::destPreserve(const RuleCursor& cursor) const {
    const auto* d = preserveDirective(cursor);
    if (!d) return std::nullopt;
    return CopyRuleDisposition::DestPreserve{*preserveKind(cursor), provenanceOf(*d), d->directive.item};
}

CopyRuleDisposition::Evaluation CopyRuleWalker::evaluation(const RuleCursor& cursor) const {
    return {resolved(cursor), destPreserve(cursor)};
}

}  // namespace ql
