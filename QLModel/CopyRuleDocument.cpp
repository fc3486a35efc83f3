#include "QLModel/CopyRuleDocument.h"

#include <fmt/format.h>

#include <algorithm>

namespace ql {

namespace {

constexpr std::string_view kClass = "Class";
constexpr std::string_view kDescription = "Description";
constexpr std::string_view kDirectives = "Directives";
constexpr std::string_view kIncludes = "Include Directives";
constexpr std::string_view kVisible = "Visible";
constexpr std::string_view kToken = "Directive";
constexpr std::string_view kItem = "Item";

using ParseError = CopyRuleDocument::ParseError;

tl::unexpected<ParseError> unsupported(std::string detail) {
    return tl::unexpected(ParseError{ParseError::Kind::unsupportedPlistType, std::move(detail)});
}

tl::expected<Directive, ParseError> readDirective(const PlistValue& value, std::size_t index) {
    const PlistDictionary* dict = value.asDict();
    if (!dict) {
        return unsupported(fmt::format("{} element: {}", kDirectives, value.typeName()));
    }
    Directive d;
    for (const auto& [key, v] : *dict) {
        if (key == kToken || key == kItem) {
            const std::string* s = v.asString();
            if (!s) return unsupported(fmt::format("{} element {} “{}”: {}", kDirectives, index, key, v.typeName()));
            (key == kToken ? d.token : d.item) = *s;
        } else {
            d.extraKeys.set(key, v);
        }
    }
    return d;
}

}  // namespace

std::string CopyRuleDocument::ParseError::message() const {
    switch (kind) {
        case Kind::notADictionary: return "The copy rule is not a property-list dictionary.";
        case Kind::unsupportedPlistType:
            return fmt::format("The copy rule holds a value of a kind it cannot have ({}).", detail);
        case Kind::unreadable: return fmt::format("The copy rule could not be read: {}", detail);
    }
    return detail;
}

tl::expected<CopyRuleDocument, ParseError> CopyRuleDocument::fromPlist(const PlistValue& root,
                                                                       std::optional<std::string> filename) {
    const PlistDictionary* top = root.asDict();
    if (!top) return tl::unexpected(ParseError{ParseError::Kind::notADictionary, {}});
    CopyRuleDocument doc;
    doc.filename = std::move(filename);
    for (const auto& [key, value] : *top) {
        if (key == kClass && value.isString()) {
            doc.className = *value.asString();
        } else if (key == kDescription && value.isString()) {
            doc.ruleDescription = *value.asString();
        } else if (key == kVisible && value.isBool()) {
            doc.visible = *value.asBool();
        } else if (key == kDirectives) {
            const PlistValue::Array* items = value.asArray();
            if (!items) return unsupported(fmt::format("{}: {}", kDirectives, value.typeName()));
            doc.directives.reserve(items->size());
            for (std::size_t i = 0; i < items->size(); ++i) {
                auto d = readDirective((*items)[i], i);
                if (!d) return tl::unexpected(d.error());
                doc.directives.push_back(std::move(*d));
            }
        } else if (key == kIncludes) {
            const PlistValue::Array* items = value.asArray();
            if (!items) return unsupported(fmt::format("{}: {}", kIncludes, value.typeName()));
            for (const auto& item : *items) {
                const std::string* s = item.asString();
                if (!s) return unsupported(fmt::format("{} element: {}", kIncludes, item.typeName()));
                doc.includeDirectives.push_back(*s);
            }
        } else {
            doc.extraTopLevelKeys.set(key, value);
        }
    }
    return doc;
}

tl::expected<CopyRuleDocument, ParseError> CopyRuleDocument::read(std::string_view bytes,
                                                                  std::optional<std::string> filename) {
    auto root = PropertyList::read(bytes);
    if (!root) return tl::unexpected(ParseError{ParseError::Kind::unreadable, root.error().message()});
    return fromPlist(*root, std::move(filename));
}

tl::expected<CopyRuleDocument, ParseError> CopyRuleDocument::readFile(const std::filesystem::path& path) {
    auto root = PropertyList::readFile(path);
    if (!root) return tl::unexpected(ParseError{ParseError::Kind::unreadable, root.error().message()});
    return fromPlist(*root, path.filename().string());
}

PlistValue CopyRuleDocument::toPlist() const {
    PlistDictionary top;
    if (className) top.set(std::string(kClass), *className);
    if (ruleDescription) top.set(std::string(kDescription), *ruleDescription);
    if (visible) top.set(std::string(kVisible), *visible);
    PlistValue::Array list;
    list.reserve(directives.size());
    for (const auto& d : directives) {
        PlistDictionary entry;
        entry.set(std::string(kToken), d.token);
        entry.set(std::string(kItem), d.item);
        for (const auto& [k, v] : d.extraKeys) entry.set(k, v);
        list.emplace_back(std::move(entry));
    }
    top.set(std::string(kDirectives), std::move(list));
    PlistValue::Array includes;
    for (const auto& name : includeDirectives) includes.emplace_back(name);
    top.set(std::string(kIncludes), std::move(includes));
    for (const auto& [k, v] : extraTopLevelKeys) top.set(k, v);
    return top;
}

tl::expected<std::string, PlistError> CopyRuleDocument::writeXml() const { return PropertyList::writeXml(toPlist()); }

bool CopyRuleDocument::normalizeExcludeAll() {
    if (includeDirectives.empty() || directives.size() < 2) return false;
    const Directive& a = directives[0];
    const Directive& b = directives[1];
    if (!a.isExcludeAll() || !b.isExcludeAll() || a.item == b.item) return false;
    if (std::find(includeDirectives.begin(), includeDirectives.end(), excludeAllInclude) != includeDirectives.end()) {
        return false;
    }
    directives.erase(directives.begin(), directives.begin() + 2);
    includeDirectives.insert(includeDirectives.begin(), std::string(excludeAllInclude));
    return true;
}

}  // namespace ql
