#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace ql {

enum class PreserveKind : std::uint8_t {
    none,
    preserve,          // keep the destination item whatever the source has
    preserveIfAbsent,  // keep the destination item when the source does not have it
};

// What the copy rules say about one child of a directory.
struct PathVerdict {
    bool selected = true;          // the source item is copied (a copy or optional disposition)
    bool optional = false;         // unreadable or absent without failing the run
    bool retainOnError = false;    // on an error, the destination copy stays as it is
    PreserveKind preserve = PreserveKind::none;
    // For directories that are not selected: some item below may still be selected, so the
    // walk goes in (creating the folder on the destination only when something inside is copied).
    bool mayHoldSelected = false;
    bool operator==(const PathVerdict&) const = default;
};

// The rules' view of one directory of the walk. Scopes are made per directory as the walk goes
// down, so a rule set can carry each directory's partial result to its children.
class SelectionScope {
public:
    virtual ~SelectionScope() = default;
    virtual PathVerdict verdict(std::string_view name, bool isDirectory) const = 0;
    virtual std::unique_ptr<SelectionScope> enter(std::string_view name) const = 0;
};

// A compiled rule set: immutable, shared by the walker and the sizing pass (each thread makes
// its own scopes).
class SelectionRules {
public:
    virtual ~SelectionRules() = default;
    virtual std::unique_ptr<SelectionScope> rootScope() const = 0;
    // Canonical text of everything that decides selection, hashed into the state file so a
    // change of rules is noticed.
    virtual std::string fingerprint() const = 0;
};

}  // namespace ql
