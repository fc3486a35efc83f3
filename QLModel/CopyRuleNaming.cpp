#include "QLModel/CopyRuleNaming.h"

#include <fmt/format.h>
#include <unicode/normalizer2.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <set>

namespace ql {

namespace {

constexpr std::string_view kExtension = ".dset";

std::string_view withoutExtension(std::string_view name) {
    if (name.size() > kExtension.size()) {
        const std::string_view tail = name.substr(name.size() - kExtension.size());
        const bool isExt = std::equal(tail.begin(), tail.end(), kExtension.begin(), [](char a, char b) {
            return (a >= 'A' && a <= 'Z' ? static_cast<char>(a - 'A' + 'a') : a) == b;
        });
        if (isExt) return name.substr(0, name.size() - kExtension.size());
    }
    return name;
}

}  // namespace

std::string CopyRuleNaming::comparisonKey(std::string_view name) {
    const std::string_view stem = withoutExtension(name);
    icu::UnicodeString text = icu::UnicodeString::fromUTF8(icu::StringPiece(stem.data(), static_cast<int32_t>(stem.size())));
    // Canonical caseless form: decompose, fold case, then compose again (folding can change
    // what a decomposed sequence composes to, e.g. for "İ").
    UErrorCode status = U_ZERO_ERROR;
    const icu::Normalizer2* nfd = icu::Normalizer2::getNFDInstance(status);
    const icu::Normalizer2* nfc = icu::Normalizer2::getNFCInstance(status);
    if (U_SUCCESS(status) && nfd && nfc) {
        icu::UnicodeString decomposed = nfd->normalize(text, status);
        if (U_SUCCESS(status)) text = decomposed;
        text.foldCase(U_FOLD_CASE_DEFAULT);
        icu::UnicodeString composed = nfc->normalize(text, status);
        if (U_SUCCESS(status)) text = composed;
    } else {
        text.foldCase(U_FOLD_CASE_DEFAULT);
    }
    std::string out;
    text.toUTF8String(out);
    return out;
}

bool CopyRuleNaming::sameName(std::string_view a, std::string_view b) { return comparisonKey(a) == comparisonKey(b); }

std::string CopyRuleNaming::displayName(std::string_view filename) { return std::string(withoutExtension(filename)); }

CopyRuleNaming::Collision CopyRuleNaming::check(std::string_view proposed, const Context& context) {
    const std::string key = comparisonKey(proposed);
    auto same = [&](const std::string& other) { return comparisonKey(other) == key; };
    if (std::any_of(context.builtinNames.begin(), context.builtinNames.end(), same)) return Collision::builtin;
    if (std::any_of(context.otherUserRuleNames.begin(), context.otherUserRuleNames.end(), same)) {
        return Collision::existingUserRule;
    }
    std::set<std::string> visited;
    std::vector<std::string> pending(context.ownIncludes.rbegin(), context.ownIncludes.rend());
    while (!pending.empty()) {
        const std::string name = std::move(pending.back());
        pending.pop_back();
        const std::string nameKey = comparisonKey(name);
        if (nameKey == key) return Collision::selfInclude;
        if (!visited.insert(nameKey).second) continue;
        if (!context.includesOf) continue;
        if (auto next = context.includesOf(name)) {
            for (auto it = next->rbegin(); it != next->rend(); ++it) pending.push_back(*it);
        }
    }
    return Collision::none;
}

std::string CopyRuleNaming::duplicateName(std::string_view name, const std::function<bool(std::string_view)>& isTaken) {
    std::string proposal = fmt::format("{} copy", displayName(name));
    for (int n = 2; isTaken(proposal); ++n) {
        proposal = fmt::format("{} copy {}", displayName(name), n);
    }
    return proposal;
}

std::string CopyRuleNaming::duplicateName(std::string_view name, const std::vector<std::string>& namesInUse) {
    std::set<std::string> keys;
    for (const auto& n : namesInUse) keys.insert(comparisonKey(n));
    return duplicateName(name, [&](std::string_view p) { return keys.count(comparisonKey(p)) > 0; });
}

}  // namespace ql
