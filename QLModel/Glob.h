#pragma once

#include <tl/expected.hpp>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace ql {

// The glob syntax of copy-rule items: volume-relative paths whose "/"-separated segments may
// hold wildcards.
//
//   *       any run of characters within one segment (never a "/"); "**" inside a longer
//           segment ("a**b") is the same as "*"
//   **      as a whole segment: zero or more whole segments, at any depth
//           ("Users/**/Library" matches Users/Library, Users/ann/Library, Users/a/b/Library;
//           "**/x" matches x at the top level too; "Users/**" matches Users and all below it)
//   ?       one character other than "/"
//   [...]   one character from a class: "[abc]", ranges "[a-z]", negation "[!abc]" or "[^abc]",
//           a "]" right after the opening (or the negation) is a member; a class that is never
//           closed is an error carrying the whole pattern
//
// Everything else, backslash included, is literal; "?" and classes work on UTF-8 characters.
// Matching is exact (case-sensitive) and whole: the pattern must match the entire path.
// A pattern and a path are compared segment by segment, so an empty segment ("a//b") only
// matches an empty path segment.
class Glob {
public:
    struct GlobError {
        enum class Kind { unterminatedCharacterClass };
        Kind kind = Kind::unterminatedCharacterClass;
        std::string pattern;  // the whole pattern that failed
        std::string message() const;
        friend bool operator==(const GlobError&, const GlobError&) = default;
    };

    // One compiled segment of a pattern. A segment is a literal, a globstar ("**"), or a
    // wildcard program run by `matchSegment`.
    struct Segment {
        enum class Kind { literal, globstar, wildcard };
        struct Token {
            enum class Kind { literal, anyChar, star, charClass };
            Kind kind = Kind::literal;
            std::string text;  // literal run
            bool negated = false;
            std::vector<std::pair<std::uint32_t, std::uint32_t>> ranges;  // inclusive code-point ranges
        };
        // Common wildcard shapes answered without the general matcher: "abc*", "*abc", "*abc*".
        enum class Shape { general, prefix, suffix, infix };
        Kind kind = Kind::literal;
        std::string text;  // the segment as written
        std::vector<Token> tokens;  // wildcard segments only
        Shape shape = Shape::general;
        std::string fixed;  // the literal run of a prefix, suffix or infix shape
    };

    static tl::expected<Glob, GlobError> compile(std::string_view pattern);

    // True when the pattern matches the whole path.
    bool matches(std::string_view path) const;

    const std::string& pattern() const { return pattern_; }
    const std::vector<Segment>& segments() const { return segments_; }
    // True when no segment holds a wildcard: the pattern names exactly one path.
    bool isLiteral() const;

    // True when the text holds "*", "?" or "[": items without them are plain paths.
    static bool hasMetacharacters(std::string_view text);

    // Whether one path segment (no "/") matches a literal or wildcard segment. A globstar
    // matches any one segment.
    static bool matchSegment(const Segment& segment, std::string_view name);

private:
    std::string pattern_;
    std::vector<Segment> segments_;
};

}  // namespace ql
