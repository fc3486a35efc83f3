#include "QLProtocol/runners/FolderJobProtectionRebase.h"

#include <fnmatch.h>

#include <optional>

namespace ql {
namespace {

std::vector<std::string> segments(std::string_view path) {
    std::vector<std::string> parts;
    std::size_t start = 0;
    while (start <= path.size()) {
        auto end = path.find('/', start);
        if (end == std::string_view::npos) end = path.size();
        auto part = path.substr(start, end - start);
        if (!part.empty() && part != ".") parts.emplace_back(part);
        start = end + 1;
    }
    return parts;
}

bool segmentMatches(const std::string& pattern, const std::string& name) {
    return ::fnmatch(pattern.c_str(), name.c_str(), 0) == 0;
}

// The pattern as seen from inside `root`, or nothing when it does not concern `root`.
std::optional<std::string> rebaseOne(std::string_view pattern, const std::vector<std::string>& root) {
    auto parts = segments(pattern);
    // "**/…" (also written "/**/…") matches at any depth of the volume, so it has no place
    // relative to one folder.
    if (parts.empty() || parts.front() == "**") return std::nullopt;

    std::size_t depth = std::min(parts.size(), root.size());
    for (std::size_t i = 0; i < depth; ++i) {
        // "**" spans any number of folders: where the rest would sit relative to the root
        // cannot be told.
        if (parts[i].find("**") != std::string::npos) return std::nullopt;
        if (!segmentMatches(parts[i], root[i])) return std::nullopt;
    }
    // The pattern matches the root or one of its ancestors: everything below the root is covered.
    if (parts.size() <= root.size()) return std::string("*");

    std::string rest;
    for (std::size_t i = root.size(); i < parts.size(); ++i) {
        if (!rest.empty()) rest += '/';
        rest += parts[i];
    }
    if (pattern.ends_with('/')) rest += '/';
    return rest;
}

}  // namespace

std::vector<std::string> FolderJobProtectionRebase::rebase(const std::vector<std::string>& patterns,
                                                           std::string_view copyRoot) {
    const auto root = segments(copyRoot);
    std::vector<std::string> rebased;
    for (const auto& pattern : patterns) {
        if (auto r = rebaseOne(pattern, root)) rebased.push_back(std::move(*r));
    }
    return rebased;
}

}  // namespace ql
