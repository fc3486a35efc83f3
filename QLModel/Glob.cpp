#include "QLModel/Glob.h"

#include <fmt/format.h>

#include <algorithm>

namespace ql {

namespace {

struct CodePoint {
    std::uint32_t value = 0;
    std::size_t length = 1;
};

// Decodes one UTF-8 character at `at`; a byte that does not start a well-formed sequence counts
// as one character of its own value, so matching never stalls on odd names.
CodePoint decodeAt(std::string_view s, std::size_t at) {
    const auto c = static_cast<unsigned char>(s[at]);
    if (c < 0x80) return {c, 1};
    std::size_t len = 0;
    std::uint32_t cp = 0;
    if ((c & 0xE0) == 0xC0) {
        len = 2;
        cp = c & 0x1F;
    } else if ((c & 0xF0) == 0xE0) {
        len = 3;
        cp = c & 0x0F;
    } else if ((c & 0xF8) == 0xF0) {
        len = 4;
        cp = c & 0x07;
    } else {
        return {c, 1};
    }
    if (at + len > s.size()) return {c, 1};
    for (std::size_t k = 1; k < len; ++k) {
        const auto cc = static_cast<unsigned char>(s[at + k]);
        if ((cc & 0xC0) != 0x80) return {c, 1};
        cp = (cp << 6) | (cc & 0x3F);
    }
    return {cp, len};
}

using Segment = Glob::Segment;
using Token = Glob::Segment::Token;

// Parses one segment that holds metacharacters into tokens; false when a class is unclosed.
bool parseWildcard(std::string_view seg, std::vector<Token>& out) {
    auto appendLiteral = [&](std::string_view text) {
        if (!out.empty() && out.back().kind == Token::Kind::literal) {
            out.back().text.append(text);
        } else {
            Token t;
            t.kind = Token::Kind::literal;
            t.text = std::string(text);
            out.push_back(std::move(t));
        }
    };
    std::size_t i = 0;
    while (i < seg.size()) {
        const char c = seg[i];
        if (c == '*') {
            if (out.empty() || out.back().kind != Token::Kind::star) {
                Token t;
                t.kind = Token::Kind::star;
                out.push_back(std::move(t));
            }
            ++i;
        } else if (c == '?') {
            Token t;
            t.kind = Token::Kind::anyChar;
            out.push_back(std::move(t));
            ++i;
        } else if (c == '[') {
            Token t;
            t.kind = Token::Kind::charClass;
            std::size_t j = i + 1;
            if (j < seg.size() && (seg[j] == '!' || seg[j] == '^')) {
                t.negated = true;
                ++j;
            }
            bool first = true;
            bool closed = false;
            while (j < seg.size()) {
                if (seg[j] == ']' && !first) {
                    closed = true;
                    ++j;
                    break;
                }
                first = false;
                const CodePoint lo = decodeAt(seg, j);
                j += lo.length;
                std::uint32_t hi = lo.value;
                if (j + 1 < seg.size() && seg[j] == '-' && seg[j + 1] != ']') {
                    const CodePoint h = decodeAt(seg, j + 1);
                    hi = h.value;
                    j += 1 + h.length;
                }
                if (hi < lo.value) continue;  // an empty range matches nothing
                t.ranges.emplace_back(lo.value, hi);
            }
            if (!closed) return false;
            out.push_back(std::move(t));
            i = j;
        } else {
            const CodePoint cp = decodeAt(seg, i);
            appendLiteral(seg.substr(i, cp.length));
            i += cp.length;
        }
    }
    return true;
}

bool classMatches(const Token& t, std::uint32_t cp) {
    bool in = false;
    for (const auto& [lo, hi] : t.ranges) {
        if (cp >= lo && cp <= hi) {
            in = true;
            break;
        }
    }
    return in != t.negated;
}

// Wildcard matching with one backtrack point (the latest star): every token but the star
// consumes a fixed amount from a given position, so retrying the latest star is enough.
bool matchTokens(const std::vector<Token>& tokens, std::string_view name) {
    const std::size_t m = tokens.size();
    const std::size_t n = name.size();
    std::size_t p = 0;
    std::size_t s = 0;
    std::size_t starP = SIZE_MAX;
    std::size_t starS = 0;
    while (true) {
        if (p < m) {
            const Token& t = tokens[p];
            bool advanced = false;
            switch (t.kind) {
                case Token::Kind::star:
                    starP = p;
                    starS = s;
                    ++p;
                    continue;
                case Token::Kind::literal:
                    if (name.substr(s).starts_with(t.text)) {
                        s += t.text.size();
                        advanced = true;
                    }
                    break;
                case Token::Kind::anyChar:
                    if (s < n) {
                        s += decodeAt(name, s).length;
                        advanced = true;
                    }
                    break;
                case Token::Kind::charClass:
                    if (s < n) {
                        const CodePoint cp = decodeAt(name, s);
                        if (classMatches(t, cp.value)) {
                            s += cp.length;
                            advanced = true;
                        }
                    }
                    break;
            }
            if (advanced) {
                ++p;
                continue;
            }
        } else if (s == n) {
            return true;
        }
        // Mismatch, or tokens used up with text left: let the latest star take one more character.
        if (starP == SIZE_MAX || starS >= n) return false;
        starS += decodeAt(name, starS).length;
        s = starS;
        p = starP + 1;
    }
}

}  // namespace

std::string Glob::GlobError::message() const {
    return fmt::format("The pattern “{}” has a character class (“[”) that is never closed.", pattern);
}

bool Glob::hasMetacharacters(std::string_view text) { return text.find_first_of("*?[") != std::string_view::npos; }

tl::expected<Glob, Glob::GlobError> Glob::compile(std::string_view pattern) {
    Glob g;
    g.pattern_ = std::string(pattern);
    std::size_t start = 0;
    while (true) {
        const std::size_t slash = pattern.find('/', start);
        const std::string_view text =
            pattern.substr(start, slash == std::string_view::npos ? std::string_view::npos : slash - start);
        Segment seg;
        seg.text = std::string(text);
        if (text == "**") {
            seg.kind = Segment::Kind::globstar;
        } else if (!hasMetacharacters(text)) {
            seg.kind = Segment::Kind::literal;
        } else {
            seg.kind = Segment::Kind::wildcard;
            if (!parseWildcard(text, seg.tokens)) {
                return tl::unexpected(GlobError{GlobError::Kind::unterminatedCharacterClass, std::string(pattern)});
            }
            // A star steps over whole UTF-8 characters; byte-wise search agrees with that when the
            // text searched for is ASCII, which never occurs inside a multi-byte character.
            using TK = Token::Kind;
            const auto& t = seg.tokens;
            auto ascii = [](const std::string& text) {
                return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
            };
            if (t.size() == 2 && t[0].kind == TK::literal && t[1].kind == TK::star) {
                seg.shape = Segment::Shape::prefix;
                seg.fixed = t[0].text;
            } else if (t.size() == 2 && t[0].kind == TK::star && t[1].kind == TK::literal && ascii(t[1].text)) {
                seg.shape = Segment::Shape::suffix;
                seg.fixed = t[1].text;
            } else if (t.size() == 3 && t[0].kind == TK::star && t[1].kind == TK::literal && t[2].kind == TK::star &&
                       ascii(t[1].text)) {
                seg.shape = Segment::Shape::infix;
                seg.fixed = t[1].text;
            }
        }
        // Adjacent globstars mean the same as one.
        if (!(seg.kind == Segment::Kind::globstar && !g.segments_.empty() &&
              g.segments_.back().kind == Segment::Kind::globstar)) {
            g.segments_.push_back(std::move(seg));
        }
        if (slash == std::string_view::npos) break;
        start = slash + 1;
    }
    return g;
}

bool Glob::isLiteral() const {
    for (const auto& s : segments_) {
        if (s.kind != Segment::Kind::literal) return false;
    }
    return true;
}

bool Glob::matchSegment(const Segment& segment, std::string_view name) {
    switch (segment.kind) {
        case Segment::Kind::literal: return name == segment.text;
        case Segment::Kind::globstar: return true;
        case Segment::Kind::wildcard:
            switch (segment.shape) {
                case Segment::Shape::prefix: return name.starts_with(segment.fixed);
                case Segment::Shape::suffix: return name.ends_with(segment.fixed);
                case Segment::Shape::infix: return name.find(segment.fixed) != std::string_view::npos;
                case Segment::Shape::general: return matchTokens(segment.tokens, name);
            }
            return false;
    }
    return false;
}

bool Glob::matches(std::string_view path) const {
    // A set of positions in the segment list, advanced one path segment at a time; a globstar
    // position stays alive on any segment and also stands for the position after it.
    const std::size_t m = segments_.size();
    std::vector<char> active(m + 1, 0);
    std::vector<char> next(m + 1, 0);
    auto close = [&](std::vector<char>& set) {
        for (std::size_t i = 0; i < m; ++i) {
            if (set[i] && segments_[i].kind == Segment::Kind::globstar) set[i + 1] = 1;
        }
    };
    active[0] = 1;
    close(active);
    std::size_t start = 0;
    while (true) {
        const std::size_t slash = path.find('/', start);
        const std::string_view name =
            path.substr(start, slash == std::string_view::npos ? std::string_view::npos : slash - start);
        std::fill(next.begin(), next.end(), 0);
        bool any = false;
        for (std::size_t i = 0; i < m; ++i) {
            if (!active[i]) continue;
            if (segments_[i].kind == Segment::Kind::globstar) {
                next[i] = 1;
                any = true;
            } else if (matchSegment(segments_[i], name)) {
                next[i + 1] = 1;
                any = true;
            }
        }
        if (!any) return false;
        close(next);
        active.swap(next);
        if (slash == std::string_view::npos) break;
        start = slash + 1;
    }
    return active[m] != 0;
}

}  // namespace ql
