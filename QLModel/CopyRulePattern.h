#pragma once

#include "QLModel/CopyRuleDisposition.h"

#include <string>
#include <string_view>

namespace ql {

// A structured pattern the editor offers instead of a raw glob: a subject (what) and a scope
// (where). It compiles to a directive item and reads as an English phrase.
//
//   subject           scope                      item
//   fileType(dmg)     anywhere                   **/*.dmg
//   namePrefix(IMG_)  inFolderAndBelow("", "")   **/IMG_*
//   anyFolderNamed    inFolder(Users/ann, ann)   Users/ann/node_modules
//   folderContents    inFolder(Users/ann, ann)   Users/ann/*
//   folderContents    anywhere                   *
//
// Summary with a disposition: "Copy all Disk Image files anywhere".
struct CopyRulePattern {
    struct Subject {
        enum class Kind { fileType, namePrefix, anyFolderNamed, folderContents };
        Kind kind = Kind::folderContents;
        std::string value;  // the extension, the stem or the folder name

        static Subject fileType(std::string ext) { return {Kind::fileType, std::move(ext)}; }
        static Subject namePrefix(std::string stem) { return {Kind::namePrefix, std::move(stem)}; }
        static Subject anyFolderNamed(std::string name) { return {Kind::anyFolderNamed, std::move(name)}; }
        static Subject folderContents() { return {Kind::folderContents, {}}; }
        friend bool operator==(const Subject&, const Subject&) = default;
    };

    struct Scope {
        enum class Kind { inFolder, inFolderAndBelow, anywhere };
        Kind kind = Kind::anywhere;
        std::string path;  // volume-relative folder path ("" is the top level)
        std::string name;  // the folder's display name

        static Scope inFolder(std::string path, std::string name) { return {Kind::inFolder, std::move(path), std::move(name)}; }
        static Scope inFolderAndBelow(std::string path, std::string name) {
            return {Kind::inFolderAndBelow, std::move(path), std::move(name)};
        }
        static Scope anywhere() { return {Kind::anywhere, {}, {}}; }
        friend bool operator==(const Scope&, const Scope&) = default;
    };

    Subject subject;
    Scope scope;

    // The directive item: the scope's prefix ("path/", "path/**/" or "**/"), then "*." + ext,
    // stem + "*" or the folder name; folder contents are prefix + "*" in a folder, "*" otherwise.
    std::string compile() const;

    // " in Documents", " at the top level", " in Documents and below", " anywhere".
    std::string scopePhrase() const;
    // "all Disk Image files", "files starting with “IMG_”", "every folder named “build”",
    // "everything in this folder".
    std::string subjectPhrase() const;
    // The disposition's label, a space, the subject phrase and the scope phrase.
    std::string summary(CopyRuleDisposition::Disposition disposition) const;
    // Same with the destination label "Keep".
    std::string keepSummary() const;

    // Type labels by extension ("Disk Image" / "Disk Image files"); an extension not in the
    // table reads "." + ext + " file" / " files". The table is looked up without regard to case.
    static std::string typeLabelSingular(std::string_view ext);
    static std::string typeLabelPlural(std::string_view ext);

    friend bool operator==(const CopyRulePattern&, const CopyRulePattern&) = default;
};

}  // namespace ql
