#pragma once

#include "QLModel/Directive.h"
#include "QLSupport/PropertyList.h"

#include <tl/expected.hpp>

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ql {

// A copy rule (".dset" file): a property-list dictionary holding an ordered list of directives
// and the names of other rule documents it includes. Reading is lossless: every key this
// program does not interpret is kept, at the top level and inside each directive, and writing
// is the exact inverse, so reading the written form yields an equal document.
//
// Property-list keys: "Class" (`className`), "Description" (`ruleDescription`), "Directives"
// (`directives`), "Include Directives" (`includeDirectives`), "Visible" (`visible`); everything
// else goes to `extraTopLevelKeys`. `filename` is not stored: it is the file the document came
// from, used for naming and include checks.
struct CopyRuleDocument {
    // The include that stands for the pair of directives "exclude *" and "exclude .*".
    static constexpr std::string_view excludeAllInclude = "Exclude all files.dset";

    std::optional<std::string> className;
    std::optional<std::string> ruleDescription;
    std::vector<Directive> directives;
    std::vector<std::string> includeDirectives;
    std::optional<bool> visible;
    PlistDictionary extraTopLevelKeys;
    std::optional<std::string> filename;

    struct ParseError {
        enum class Kind {
            notADictionary,        // the root, or a directive, is not a dictionary
            unsupportedPlistType,  // a value of the wrong kind where the format needs one kind
            unreadable,            // the bytes are not a property list at all, or the file is unreadable
        };
        Kind kind = Kind::notADictionary;
        // For `unsupportedPlistType`, which value: "Directives element: string"; for
        // `unreadable`, the property-list reader's sentence.
        std::string detail;
        std::string message() const;
        friend bool operator==(const ParseError&, const ParseError&) = default;
    };

    // From a property-list root. "Class" and "Description" are read when they are strings and
    // "Visible" when it is a boolean; a value of another kind under those keys is kept as an
    // extra key instead. "Directives" and "Include Directives" must be arrays (of dictionaries
    // and of strings); absent means empty. In a directive, "Directive" and "Item" must be
    // strings when present; absent reads as an empty string (and such a directive never acts).
    static tl::expected<CopyRuleDocument, ParseError> fromPlist(const PlistValue& root,
                                                                std::optional<std::string> filename = std::nullopt);
    // From XML or binary property-list bytes.
    static tl::expected<CopyRuleDocument, ParseError> read(std::string_view bytes,
                                                           std::optional<std::string> filename = std::nullopt);
    // From a file; `filename` becomes the file's name ("Backup - all files.dset").
    static tl::expected<CopyRuleDocument, ParseError> readFile(const std::filesystem::path& path);

    // The property-list root: "Class", "Description" and "Visible" only when present,
    // "Directives" and "Include Directives" always, then every extra top-level key.
    PlistValue toPlist() const;
    // XML property-list text (the form rule files are written in).
    tl::expected<std::string, PlistError> writeXml() const;

    // Replaces a leading "exclude *" / "exclude .*" pair (either order, no extra keys) with the
    // include "Exclude all files.dset" placed first, when the document already has at least one
    // include and does not include that one yet. Applied when a document is loaded for editing.
    // Returns whether the document changed.
    bool normalizeExcludeAll();

    friend bool operator==(const CopyRuleDocument&, const CopyRuleDocument&) = default;
};

}  // namespace ql
