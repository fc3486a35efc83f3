#pragma once

#include "QLModel/CopyRuleDisposition.h"
#include "QLModel/CopyRuleDocument.h"

#include <tl/expected.hpp>

#include <filesystem>
#include <string>
#include <vector>

namespace ql {

// A copy rule read from disk together with every document it includes, ready to merge and
// compile. This is how the engine and the server's validation load a rule: include names are
// looked up in the search directories in order (the first folder holding the file wins), or
// beside the rule itself when no search directories are given.
//
// Refused always: an unreadable or malformed document (the rule's own or an included one), an
// include chain that leads back to a document being included, includes nested deeper than
// `CopyRuleDisposition::maxIncludeDepth`, and more than `maxDocuments` documents.
// With strict includes also refused, and otherwise skipped with a note: an include that no
// search directory holds, and an include name that is absolute or climbs out with "..".
class CopyRuleSet {
public:
    static constexpr std::size_t maxDocuments = 256;

    struct Options {
        std::vector<std::filesystem::path> searchDirectories;
        bool strictIncludes = false;
    };

    struct Included {
        std::string name;             // the include as written ("Exclude all files.dset")
        std::filesystem::path path;   // where it was found (empty for in-memory sets)
        CopyRuleDocument document;
        friend bool operator==(const Included&, const Included&) = default;
    };

    struct Error {
        enum class Kind {
            unreadableDocument,
            includeNotFound,
            includeOutsideSearchPath,
            includeCycle,
            includeTooDeep,
            tooManyDocuments,
        };
        Kind kind = Kind::unreadableDocument;
        std::string name;    // the document or include concerned
        std::string detail;  // the sentence
        std::string message() const { return detail; }
    };

    static tl::expected<CopyRuleSet, Error> load(const std::filesystem::path& document, const Options& options);
    // An in-memory set (the editor's documents, tests): includes are found by exact name.
    static CopyRuleSet fromDocuments(CopyRuleDocument document, std::vector<Included> includes);

    const CopyRuleDocument& document() const { return document_; }
    const std::vector<Included>& includes() const { return includes_; }
    // Includes that were skipped (non-strict loading), one sentence each.
    const std::vector<std::string>& notes() const { return notes_; }

    // The finder `CopyRuleDisposition::merge` needs, over this set's documents.
    CopyRuleDisposition::IncludeLookup lookup() const;
    CopyRuleDisposition::Merged merged() const;

private:
    CopyRuleDocument document_;
    std::vector<Included> includes_;
    // Include name → index into includes_, or -1 for the rule document itself.
    std::vector<std::pair<std::string, int>> byName_;
    std::vector<std::string> notes_;
};

}  // namespace ql
