#include "QLModel/CopyRulePattern.h"

#include <fmt/format.h>

#include <array>

namespace ql {

namespace {

struct TypeLabel {
    std::string_view ext;
    std::string_view singular;
    std::string_view plural;
};

constexpr std::array<TypeLabel, 14> kTypeLabels{{
    {"dmg", "Disk Image", "Disk Image files"},
    {"iso", "Disc Image", "Disc Image files"},
    {"sparsebundle", "Sparse Disk Image", "Sparse Disk Images"},
    {"pvm", "Parallels VM", "Parallels virtual machines"},
    {"dng", "Camera Raw photo", "Camera Raw photos"},
    {"raw", "Camera Raw photo", "Camera Raw photos"},
    {"jpg", "JPEG image", "JPEG images"},
    {"heic", "HEIC photo", "HEIC photos"},
    {"psd", "Photoshop document", "Photoshop documents"},
    {"mov", "QuickTime movie", "QuickTime movies"},
    {"mp4", "Movie", "Movie files"},
    {"zip", "Zip archive", "Zip archives"},
    {"pkg", "Installer package", "Installer packages"},
    {"log", "Log file", "Log files"},
}};

const TypeLabel* labelFor(std::string_view ext) {
    std::string lower(ext);
    for (char& c : lower) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    for (const auto& l : kTypeLabels) {
        if (l.ext == lower) return &l;
    }
    return nullptr;
}

}  // namespace

std::string CopyRulePattern::typeLabelSingular(std::string_view ext) {
    if (const TypeLabel* l = labelFor(ext)) return std::string(l->singular);
    return fmt::format(".{} file", ext);
}

std::string CopyRulePattern::typeLabelPlural(std::string_view ext) {
    if (const TypeLabel* l = labelFor(ext)) return std::string(l->plural);
    return fmt::format(".{} files", ext);
}

std::string CopyRulePattern::compile() const {
    std::string prefix;
    switch (scope.kind) {
        case Scope::Kind::inFolder: prefix = scope.path.empty() ? "" : scope.path + "/"; break;
        case Scope::Kind::inFolderAndBelow: prefix = scope.path.empty() ? "**/" : scope.path + "/**/"; break;
        case Scope::Kind::anywhere: prefix = "**/"; break;
    }
    switch (subject.kind) {
        case Subject::Kind::fileType: return prefix + "*." + subject.value;
        case Subject::Kind::namePrefix: return prefix + subject.value + "*";
        case Subject::Kind::anyFolderNamed: return prefix + subject.value;
        case Subject::Kind::folderContents: return scope.kind == Scope::Kind::inFolder ? prefix + "*" : "*";
    }
    return prefix;
}

std::string CopyRulePattern::scopePhrase() const {
    switch (scope.kind) {
        case Scope::Kind::inFolder: return scope.name.empty() ? " at the top level" : " in " + scope.name;
        case Scope::Kind::inFolderAndBelow: return scope.name.empty() ? " anywhere" : " in " + scope.name + " and below";
        case Scope::Kind::anywhere: return " anywhere";
    }
    return {};
}

std::string CopyRulePattern::subjectPhrase() const {
    switch (subject.kind) {
        case Subject::Kind::fileType: return "all " + typeLabelPlural(subject.value);
        case Subject::Kind::namePrefix: return "files starting with “" + subject.value + "”";
        case Subject::Kind::anyFolderNamed: return "every folder named “" + subject.value + "”";
        case Subject::Kind::folderContents: return "everything in this folder";
    }
    return {};
}

std::string CopyRulePattern::summary(CopyRuleDisposition::Disposition disposition) const {
    return std::string(CopyRuleDisposition::label(disposition)) + " " + subjectPhrase() + scopePhrase();
}

std::string CopyRulePattern::keepSummary() const {
    return std::string(CopyRuleDisposition::keepLabel) + " " + subjectPhrase() + scopePhrase();
}

}  // namespace ql
