#include "QLSupport/PropertyList.h"

#include "QLSupport/AtomicFile.h"

#include <fmt/format.h>
#include <plist/plist.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <optional>
#include <ostream>

namespace ql {

// ---------------------------------------------------------------------------------------------
// PlistDictionary

PlistDictionary::PlistDictionary(std::initializer_list<Entry> entries) {
    for (const auto& e : entries) set(e.first, e.second);
}

void PlistDictionary::set(std::string key, PlistValue value) {
    if (PlistValue* existing = find(key)) {
        *existing = std::move(value);
        return;
    }
    entries_.emplace_back(std::move(key), std::move(value));
}

const PlistValue* PlistDictionary::find(std::string_view key) const {
    for (const auto& e : entries_) {
        if (e.first == key) return &e.second;
    }
    return nullptr;
}

PlistValue* PlistDictionary::find(std::string_view key) {
    for (auto& e : entries_) {
        if (e.first == key) return &e.second;
    }
    return nullptr;
}

bool PlistDictionary::erase(std::string_view key) {
    for (auto it = entries_.begin(); it != entries_.end(); ++it) {
        if (it->first == key) {
            entries_.erase(it);
            return true;
        }
    }
    return false;
}

bool operator==(const PlistDictionary& a, const PlistDictionary& b) { return a.entries_ == b.entries_; }

// ---------------------------------------------------------------------------------------------
// PlistValue

PlistValue::PlistValue(std::uint64_t v) {
    if (v <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
        value_ = static_cast<std::int64_t>(v);
    } else {
        value_ = v;
    }
}

PlistValue::Kind PlistValue::kind() const {
    switch (value_.index()) {
        case 0: return Kind::boolean;
        case 1:
        case 2: return Kind::integer;
        case 3: return Kind::real;
        case 4: return Kind::string;
        case 5: return Kind::data;
        case 6: return Kind::date;
        case 7: return Kind::array;
        case 8: return Kind::dict;
        default: return Kind::uid;
    }
}

std::string_view PlistValue::typeName(Kind kind) {
    switch (kind) {
        case Kind::boolean: return "boolean";
        case Kind::integer: return "integer";
        case Kind::real: return "real";
        case Kind::string: return "string";
        case Kind::data: return "data";
        case Kind::date: return "date";
        case Kind::array: return "array";
        case Kind::dict: return "dictionary";
        case Kind::uid: return "uid";
    }
    return "unknown";
}

std::string_view PlistValue::typeName() const { return typeName(kind()); }

const PlistValue* PlistValue::find(std::string_view key) const {
    const PlistDictionary* d = asDict();
    return d ? d->find(key) : nullptr;
}

bool operator==(const PlistValue& a, const PlistValue& b) {
    if (a.value_.index() != b.value_.index()) return false;
    if (const double* x = a.asReal()) {
        const double y = *b.asReal();
        return *x == y || (std::isnan(*x) && std::isnan(y));
    }
    return a.value_ == b.value_;
}

std::string PlistValue::description() const {
    switch (kind()) {
        case Kind::boolean: return *asBool() ? "true" : "false";
        case Kind::integer:
            return isUnsignedInteger() ? fmt::format("{}u", *asUnsignedInteger()) : fmt::format("{}", *asInteger());
        case Kind::real: return fmt::format("{}", *asReal());
        case Kind::string: return fmt::format("\"{}\"", *asString());
        case Kind::data: {
            std::string out = "<";
            for (auto b : *asData()) out += fmt::format("{:02x}", b);
            return out + ">";
        }
        case Kind::date: {
            const auto us = std::chrono::duration_cast<std::chrono::microseconds>(asDate()->instant.time_since_epoch());
            return fmt::format("@{}+{}us", Iso8601::format(asDate()->instant), ((us.count() % 1'000'000) + 1'000'000) % 1'000'000);
        }
        case Kind::uid: return fmt::format("uid({})", asUid()->value);
        case Kind::array: {
            std::string out = "[";
            bool first = true;
            for (const auto& v : *asArray()) {
                out += first ? "" : ", ";
                first = false;
                out += v.description();
            }
            return out + "]";
        }
        case Kind::dict: {
            std::string out = "{";
            bool first = true;
            for (const auto& [k, v] : *asDict()) {
                out += first ? "" : ", ";
                first = false;
                out += fmt::format("\"{}\": {}", k, v.description());
            }
            return out + "}";
        }
    }
    return "?";
}

std::ostream& operator<<(std::ostream& out, const PlistValue& value) { return out << value.description(); }

// ---------------------------------------------------------------------------------------------
// Helpers

namespace {

using namespace std::chrono;

// The property-list epoch, 2001-01-01T00:00:00Z.
constexpr seconds kPlistEpochOffset{978'307'200};

struct PlistDeleter {
    void operator()(void* p) const { plist_free(static_cast<plist_t>(p)); }
};
using PlistPtr = std::unique_ptr<void, PlistDeleter>;

PlistError makeError(PlistError::Kind kind, std::string text) { return PlistError{kind, std::move(text)}; }

bool isValidUtf8(std::string_view s) {
    std::size_t i = 0;
    const std::size_t n = s.size();
    while (i < n) {
        const auto c = static_cast<unsigned char>(s[i]);
        if (c < 0x80) {
            ++i;
            continue;
        }
        int len = 0;
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
            return false;
        }
        if (i + len > n) return false;
        for (int k = 1; k < len; ++k) {
            const auto cc = static_cast<unsigned char>(s[i + k]);
            if ((cc & 0xC0) != 0x80) return false;
            cp = (cp << 6) | (cc & 0x3F);
        }
        if ((len == 2 && cp < 0x80) || (len == 3 && cp < 0x800) || (len == 4 && cp < 0x10000) || cp > 0x10FFFF ||
            (cp >= 0xD800 && cp <= 0xDFFF)) {
            return false;
        }
        i += len;
    }
    return true;
}

// Where in the tree a value sits, for messages: "/Directives/3/Item".
struct TreePath {
    std::vector<std::string> parts;
    std::string text() const {
        if (parts.empty()) return "the root";
        std::string out;
        for (const auto& p : parts) out += "/" + p;
        return out;
    }
};

// ---- Guards that run before libplist sees the bytes. libplist's parsers recurse once per
// nesting level and expand shared binary objects into copies, so very deep or self-multiplying
// input must be stopped here.

std::optional<PlistError> checkXmlDepth(std::string_view x) {
    int depth = 0;
    std::size_t i = 0;
    auto skipPast = [&](std::string_view terminator) {
        const std::size_t at = x.find(terminator, i);
        i = at == std::string_view::npos ? x.size() : at + terminator.size();
    };
    auto nameEndsAt = [&](std::size_t pos) {
        return pos >= x.size() || x[pos] == '>' || x[pos] == '/' || x[pos] == ' ' || x[pos] == '\t' ||
               x[pos] == '\r' || x[pos] == '\n';
    };
    while (i < x.size()) {
        const std::size_t lt = x.find('<', i);
        if (lt == std::string_view::npos) break;
        i = lt;
        const std::string_view rest = x.substr(i);
        if (rest.starts_with("<!--")) {
            skipPast("-->");
        } else if (rest.starts_with("<![CDATA[")) {
            skipPast("]]>");
        } else if (rest.starts_with("<?")) {
            skipPast("?>");
        } else if (rest.starts_with("</")) {
            if ((rest.starts_with("</array") && nameEndsAt(i + 7)) || (rest.starts_with("</dict") && nameEndsAt(i + 6))) {
                if (depth > 0) --depth;
            }
            skipPast(">");
        } else {
            std::size_t nameLen = 0;
            if (rest.starts_with("<array") && nameEndsAt(i + 6)) nameLen = 6;
            if (rest.starts_with("<dict") && nameEndsAt(i + 5)) nameLen = 5;
            const std::size_t gt = x.find('>', i);
            const bool selfClosing = gt != std::string_view::npos && gt > i && x[gt - 1] == '/';
            if (nameLen && !selfClosing) {
                if (++depth > PropertyList::maxDepth) {
                    return makeError(PlistError::Kind::tooDeep,
                                     fmt::format("The property list nests arrays and dictionaries more than {} "
                                                 "levels deep.",
                                                 PropertyList::maxDepth));
                }
            }
            i = gt == std::string_view::npos ? x.size() : gt + 1;
        }
    }
    return std::nullopt;
}

std::uint64_t readBigEndian(const unsigned char* p, unsigned width) {
    std::uint64_t v = 0;
    for (unsigned k = 0; k < width; ++k) v = (v << 8) | p[k];
    return v;
}

// Walks the object graph of a binary property list without building it: checks the trailer,
// offsets and references, and measures nesting depth and the number of values the tree expands
// to (objects may be shared, so that can far exceed the object count).
std::optional<PlistError> checkBinaryShape(std::string_view bytes) {
    auto malformed = [](std::string_view why) {
        return makeError(PlistError::Kind::malformed,
                         fmt::format("The binary property list is malformed: {}.", why));
    };
    const auto* b = reinterpret_cast<const unsigned char*>(bytes.data());
    const std::uint64_t size = bytes.size();
    if (size < 8 + 32) return malformed("it is too short to hold a trailer");
    const unsigned char* t = b + size - 32;
    const unsigned offsetSize = t[6];
    const unsigned refSize = t[7];
    const std::uint64_t objectCount = readBigEndian(t + 8, 8);
    const std::uint64_t top = readBigEndian(t + 16, 8);
    const std::uint64_t tableOffset = readBigEndian(t + 24, 8);
    if (offsetSize < 1 || offsetSize > 8 || refSize < 1 || refSize > 8) {
        return malformed("its trailer gives impossible offset or reference sizes");
    }
    if (objectCount == 0 || top >= objectCount) return malformed("its top object is out of range");
    if (tableOffset < 8 || tableOffset > size - 32 || objectCount > (size - 32 - tableOffset) / offsetSize) {
        return malformed("its offset table lies outside the file");
    }
    auto offsetOf = [&](std::uint64_t index) { return readBigEndian(b + tableOffset + index * offsetSize, offsetSize); };

    struct Container {
        bool isContainer = false;
        bool isDict = false;
        std::uint64_t refsAt = 0;
        std::uint64_t refCount = 0;
    };
    // The references held by object `index` (none for scalars), or an error text.
    auto containerOf = [&](std::uint64_t index, Container& out) -> const char* {
        const std::uint64_t off = offsetOf(index);
        if (off < 8 || off >= tableOffset) return "an object offset points outside the object area";
        const unsigned marker = b[off];
        const unsigned type = marker >> 4;
        if (type != 0xA && type != 0xC && type != 0xD) {
            out = {};
            return nullptr;
        }
        std::uint64_t count = marker & 0x0F;
        std::uint64_t pos = off + 1;
        if (count == 0x0F) {
            if (pos >= tableOffset) return "a container's length runs past the object area";
            const unsigned intMarker = b[pos];
            if ((intMarker >> 4) != 0x1 || (intMarker & 0x0F) > 3) return "a container's length is not an integer";
            const unsigned width = 1u << (intMarker & 0x0F);
            if (pos + 1 + width > tableOffset) return "a container's length runs past the object area";
            count = readBigEndian(b + pos + 1, width);
            pos += 1 + width;
        }
        const std::uint64_t refs = type == 0xD ? count * 2 : count;
        if (count > size || refs > (tableOffset - pos) / refSize) return "a container's references run past the object area";
        out = {true, type == 0xD, pos, refs};
        return nullptr;
    };

    // libplist asserts (aborts) when asked for a dictionary key holding a NUL character, so
    // such keys are refused here.
    auto keyHoldsNul = [&](std::uint64_t index) -> bool {
        const std::uint64_t off = offsetOf(index);
        if (off < 8 || off >= tableOffset) return false;  // reported when the key itself is visited
        const unsigned marker = b[off];
        const unsigned type = marker >> 4;
        if (type != 0x5 && type != 0x6) return false;
        std::uint64_t count = marker & 0x0F;
        std::uint64_t pos = off + 1;
        if (count == 0x0F) {
            if (pos >= tableOffset || (b[pos] >> 4) != 0x1 || (b[pos] & 0x0F) > 3) return false;
            const unsigned width = 1u << (b[pos] & 0x0F);
            if (pos + 1 + width > tableOffset) return false;
            count = readBigEndian(b + pos + 1, width);
            pos += 1 + width;
        }
        const std::uint64_t unit = type == 0x6 ? 2 : 1;
        if (count > (tableOffset - pos) / unit) return false;
        for (std::uint64_t k = 0; k < count; ++k) {
            if (unit == 1 ? b[pos + k] == 0 : (b[pos + 2 * k] == 0 && b[pos + 2 * k + 1] == 0)) return true;
        }
        return false;
    };

    enum : unsigned char { unvisited, open, closed };
    std::vector<unsigned char> state(objectCount, unvisited);
    std::vector<std::uint64_t> expanded(objectCount, 0);
    struct Frame {
        std::uint64_t index;
        Container c;
        std::uint64_t next = 0;
        std::uint64_t total = 1;
    };
    std::vector<Frame> stack;

    auto push = [&](std::uint64_t index) -> std::optional<PlistError> {
        Container c;
        if (const char* why = containerOf(index, c)) return malformed(why);
        // Only containers count towards depth; a scalar is popped again at once.
        if (c.isContainer) {
            if (static_cast<int>(stack.size()) >= PropertyList::maxDepth) {
                return makeError(PlistError::Kind::tooDeep,
                                 fmt::format("The property list nests arrays and dictionaries more than {} levels "
                                             "deep.",
                                             PropertyList::maxDepth));
            }
        }
        state[index] = open;
        stack.push_back(Frame{index, c});
        return std::nullopt;
    };

    if (auto e = push(top)) return e;
    while (!stack.empty()) {
        Frame& f = stack.back();
        if (f.next == f.c.refCount) {
            const Frame done = f;
            stack.pop_back();
            state[done.index] = closed;
            expanded[done.index] = done.total;
            if (!stack.empty()) {
                stack.back().total = std::min(stack.back().total + done.total, PropertyList::maxValues + 1);
            }
            continue;
        }
        const std::uint64_t child = readBigEndian(b + f.c.refsAt + f.next * refSize, refSize);
        const bool isKey = f.c.isDict && f.next < f.c.refCount / 2;
        ++f.next;
        if (child >= objectCount) return malformed("an object refers to an object that does not exist");
        if (isKey && keyHoldsNul(child)) {
            return makeError(PlistError::Kind::unsupportedValue,
                             "The property list holds a dictionary key with a NUL character.");
        }
        if (state[child] == open) return malformed("an object contains itself");
        if (state[child] == closed) {
            f.total = std::min(f.total + expanded[child], PropertyList::maxValues + 1);
            continue;
        }
        if (auto e = push(child)) return e;
    }
    if (expanded[top] > PropertyList::maxValues) {
        return makeError(PlistError::Kind::tooLarge,
                         fmt::format("The binary property list shares objects so that it would expand to more than "
                                     "{} values.",
                                     PropertyList::maxValues));
    }
    return std::nullopt;
}

// ---- libplist tree to PlistValue

SystemTime instantFromPlist(std::int32_t sec, std::int32_t usec) {
    const auto sinceEpoch = duration_cast<SystemTime::duration>(seconds{sec} + microseconds{usec});
    return SystemTime{} + kPlistEpochOffset + sinceEpoch;
}

// libplist 2.2 keeps every integer as 64 bits and marks the ones written as unsigned 128-bit
// values internally; the mark is only visible in what it writes back.
bool isUnsignedNode(plist_t node) {
    PlistPtr copy(plist_copy(node));
    char* xml = nullptr;
    std::uint32_t len = 0;
    plist_to_xml(copy.get(), &xml, &len);
    if (!xml) return false;
    const std::string_view text(xml, len);
    const std::size_t open = text.find("<integer>");
    const bool isUnsigned = open != std::string_view::npos && open + 9 < text.size() && text[open + 9] != '-';
    plist_to_xml_free(xml);
    return isUnsigned;
}

tl::expected<PlistValue, PlistError> fromNode(plist_t node, TreePath& path, int depth) {
    auto unsupported = [&](std::string_view what) {
        return tl::unexpected(makeError(PlistError::Kind::unsupportedValue,
                                        fmt::format("The property list holds {} at {}.", what, path.text())));
    };
    const plist_type type = plist_get_node_type(node);
    if ((type == PLIST_ARRAY || type == PLIST_DICT) && depth >= PropertyList::maxDepth) {
        return tl::unexpected(makeError(
            PlistError::Kind::tooDeep,
            fmt::format("The property list nests arrays and dictionaries more than {} levels deep.",
                        PropertyList::maxDepth)));
    }
    switch (type) {
        case PLIST_BOOLEAN: {
            std::uint8_t v = 0;
            plist_get_bool_val(node, &v);
            return PlistValue(v != 0);
        }
        case PLIST_UINT: {
            std::uint64_t v = 0;
            plist_get_uint_val(node, &v);
            if (v <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()) || isUnsignedNode(node)) {
                return PlistValue(v);
            }
            return PlistValue(static_cast<std::int64_t>(v));
        }
        case PLIST_REAL: {
            double v = 0;
            plist_get_real_val(node, &v);
            return PlistValue(v);
        }
        case PLIST_STRING: {
            std::uint64_t len = 0;
            const char* p = plist_get_string_ptr(node, &len);
            std::string s = p ? std::string(p, len) : std::string();
            if (!isValidUtf8(s)) return unsupported("a string that is not valid UTF-8");
            return PlistValue(std::move(s));
        }
        case PLIST_DATA: {
            std::uint64_t len = 0;
            const char* p = plist_get_data_ptr(node, &len);
            PlistValue::Bytes bytes;
            if (p && len) bytes.assign(reinterpret_cast<const std::uint8_t*>(p), reinterpret_cast<const std::uint8_t*>(p) + len);
            return PlistValue(std::move(bytes));
        }
        case PLIST_DATE: {
            std::int32_t sec = 0, usec = 0;
            plist_get_date_val(node, &sec, &usec);
            return PlistValue(PlistDate{instantFromPlist(sec, usec)});
        }
        case PLIST_UID: {
            std::uint64_t v = 0;
            plist_get_uid_val(node, &v);
            return PlistValue(PlistUid{v});
        }
        case PLIST_ARRAY: {
            PlistValue::Array items;
            const std::uint32_t n = plist_array_get_size(node);
            items.reserve(n);
            for (std::uint32_t i = 0; i < n; ++i) {
                plist_t item = plist_array_get_item(node, i);
                if (!item) return unsupported("a missing array element");
                path.parts.push_back(std::to_string(i));
                auto v = fromNode(item, path, depth + 1);
                path.parts.pop_back();
                if (!v) return v;
                items.push_back(std::move(*v));
            }
            return PlistValue(std::move(items));
        }
        case PLIST_DICT: {
            PlistDictionary dict;
            plist_dict_iter it = nullptr;
            plist_dict_new_iter(node, &it);
            std::unique_ptr<void, decltype(&std::free)> iterGuard(it, &std::free);
            while (true) {
                char* rawKey = nullptr;
                plist_t item = nullptr;
                plist_dict_next_item(node, it, &rawKey, &item);
                std::unique_ptr<char, decltype(&std::free)> keyGuard(rawKey, &std::free);
                if (!item) break;
                std::string key = rawKey ? rawKey : "";
                if (!isValidUtf8(key)) return unsupported("a dictionary key that is not valid UTF-8");
                path.parts.push_back(key);
                auto v = fromNode(item, path, depth + 1);
                path.parts.pop_back();
                if (!v) return v;
                dict.set(std::move(key), std::move(*v));
            }
            return PlistValue(std::move(dict));
        }
        case PLIST_KEY:
        case PLIST_NONE:
        default: return unsupported("a null or untyped value");
    }
}

// ---- PlistValue to libplist tree

tl::expected<PlistPtr, PlistError> toNode(const PlistValue& value, TreePath& path, int depth) {
    auto unwritable = [&](std::string_view what) {
        return tl::unexpected(makeError(PlistError::Kind::unwritable,
                                        fmt::format("The property list cannot be written: {} at {}.", what,
                                                    path.text())));
    };
    if ((value.isArray() || value.isDict()) && depth >= PropertyList::maxDepth) {
        return tl::unexpected(makeError(
            PlistError::Kind::tooDeep,
            fmt::format("The property list nests arrays and dictionaries more than {} levels deep.",
                        PropertyList::maxDepth)));
    }
    switch (value.kind()) {
        case PlistValue::Kind::boolean: return PlistPtr(plist_new_bool(*value.asBool() ? 1 : 0));
        case PlistValue::Kind::integer: {
            if (const std::uint64_t* u = value.asUnsignedInteger()) {
                // plist_new_uint marks every value as signed; parsing the decimal text is the
                // only way libplist 2.2 offers to make an unsigned one.
                const std::string xml =
                    fmt::format("<?xml version=\"1.0\"?><plist version=\"1.0\"><integer>{}</integer></plist>", *u);
                plist_t node = nullptr;
                plist_from_xml(xml.data(), static_cast<std::uint32_t>(xml.size()), &node);
                if (!node) return unwritable("an unsigned integer libplist refused");
                return PlistPtr(node);
            }
            return PlistPtr(plist_new_uint(static_cast<std::uint64_t>(*value.asInteger())));
        }
        case PlistValue::Kind::real: return PlistPtr(plist_new_real(*value.asReal()));
        case PlistValue::Kind::string: {
            const std::string& s = *value.asString();
            if (s.find('\0') != std::string::npos) return unwritable("a string holding a NUL character");
            if (!isValidUtf8(s)) return unwritable("a string that is not valid UTF-8");
            return PlistPtr(plist_new_string(s.c_str()));
        }
        case PlistValue::Kind::data: {
            const auto& d = *value.asData();
            return PlistPtr(plist_new_data(reinterpret_cast<const char*>(d.data()), d.size()));
        }
        case PlistValue::Kind::date: {
            const auto since = duration_cast<microseconds>(value.asDate()->instant - (SystemTime{} + kPlistEpochOffset));
            std::int64_t sec = since.count() / 1'000'000;
            std::int64_t usec = since.count() % 1'000'000;
            if (usec < 0) {
                usec += 1'000'000;
                sec -= 1;
            }
            if (sec < std::numeric_limits<std::int32_t>::min() || sec > std::numeric_limits<std::int32_t>::max()) {
                return unwritable(fmt::format("the date {} lies outside 1932-12-13 … 2069-01-19",
                                              Iso8601::format(value.asDate()->instant)));
            }
            return PlistPtr(plist_new_date(static_cast<std::int32_t>(sec), static_cast<std::int32_t>(usec)));
        }
        case PlistValue::Kind::uid: return PlistPtr(plist_new_uid(value.asUid()->value));
        case PlistValue::Kind::array: {
            PlistPtr array(plist_new_array());
            std::size_t i = 0;
            for (const auto& item : *value.asArray()) {
                path.parts.push_back(std::to_string(i++));
                auto node = toNode(item, path, depth + 1);
                path.parts.pop_back();
                if (!node) return node;
                plist_array_append_item(array.get(), node->release());
            }
            return array;
        }
        case PlistValue::Kind::dict: {
            PlistPtr dict(plist_new_dict());
            for (const auto& [key, item] : *value.asDict()) {
                if (key.find('\0') != std::string::npos) return unwritable("a dictionary key holding a NUL character");
                if (!isValidUtf8(key)) return unwritable("a dictionary key that is not valid UTF-8");
                path.parts.push_back(key);
                auto node = toNode(item, path, depth + 1);
                path.parts.pop_back();
                if (!node) return node;
                plist_dict_set_item(dict.get(), key.c_str(), node->release());
            }
            return dict;
        }
    }
    return unwritable("a value of unknown kind");
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// PropertyList

PropertyList::Format PropertyList::detectFormat(std::string_view bytes) {
    return bytes.starts_with("bplist") ? Format::binary : Format::xml;
}

tl::expected<PlistValue, PlistError> PropertyList::read(std::string_view bytes) {
    if (bytes.empty()) return tl::unexpected(makeError(PlistError::Kind::empty, "The property list is empty."));
    if (bytes.size() > std::numeric_limits<std::uint32_t>::max()) {
        return tl::unexpected(makeError(PlistError::Kind::tooLarge,
                                        fmt::format("The property list is {} bytes; property lists larger than "
                                                    "4 GiB are not read.",
                                                    bytes.size())));
    }
    const auto length = static_cast<std::uint32_t>(bytes.size());
    plist_t root = nullptr;
    if (detectFormat(bytes) == Format::binary) {
        if (auto e = checkBinaryShape(bytes)) return tl::unexpected(*e);
        plist_from_bin(bytes.data(), length, &root);
        if (!root) {
            return tl::unexpected(
                makeError(PlistError::Kind::malformed, "The binary property list is malformed and could not be parsed."));
        }
    } else {
        if (bytes.find('\0') != std::string_view::npos) {
            return tl::unexpected(makeError(PlistError::Kind::malformed,
                                            "The data is neither a binary property list nor a well-formed XML "
                                            "property list (it holds a NUL byte, which XML does not allow)."));
        }
        if (auto e = checkXmlDepth(bytes)) return tl::unexpected(*e);
        plist_from_xml(bytes.data(), length, &root);
        if (!root) {
            return tl::unexpected(makeError(PlistError::Kind::malformed,
                                            "The data is neither a binary property list nor a well-formed XML "
                                            "property list."));
        }
    }
    PlistPtr guard(root);
    TreePath path;
    return fromNode(root, path, 0);
}

tl::expected<PlistValue, PlistError> PropertyList::readFile(const std::filesystem::path& path) {
    auto bytes = AtomicFile::read(path);
    if (!bytes) {
        return tl::unexpected(makeError(PlistError::Kind::unreadableFile,
                                        fmt::format("The property list “{}” could not be read: {}.", path.string(),
                                                    std::strerror(bytes.error()))));
    }
    auto value = read(*bytes);
    if (!value) {
        PlistError e = value.error();
        e.detail = fmt::format("{} ({})", e.detail, path.string());
        return tl::unexpected(e);
    }
    return value;
}

tl::expected<std::string, PlistError> PropertyList::write(const PlistValue& value, Format format) {
    TreePath path;
    auto root = toNode(value, path, 0);
    if (!root) return tl::unexpected(root.error());
    char* out = nullptr;
    std::uint32_t len = 0;
    if (format == Format::xml) {
        plist_to_xml(root->get(), &out, &len);
    } else {
        plist_to_bin(root->get(), &out, &len);
    }
    if (!out) {
        return tl::unexpected(makeError(PlistError::Kind::unwritable, "libplist could not serialise the property list."));
    }
    std::string result(out, len);
    if (format == Format::xml) {
        plist_to_xml_free(out);
    } else {
        plist_to_bin_free(out);
    }
    return result;
}

tl::expected<std::string, PlistError> PropertyList::writeXml(const PlistValue& value) {
    return write(value, Format::xml);
}

tl::expected<std::string, PlistError> PropertyList::writeBinary(const PlistValue& value) {
    return write(value, Format::binary);
}

}  // namespace ql
