#include "QLProtocol/server/MountInfo.h"

#include <charconv>
#include <fstream>
#include <sstream>

namespace ql {

namespace {

std::vector<std::string_view> splitFields(std::string_view line) {
    std::vector<std::string_view> fields;
    std::size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && line[i] == ' ') ++i;
        if (i >= line.size()) break;
        std::size_t end = line.find(' ', i);
        if (end == std::string_view::npos) end = line.size();
        fields.push_back(line.substr(i, end - i));
        i = end;
    }
    return fields;
}

template <typename T>
bool parseNumber(std::string_view text, T& out) {
    auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
    return ec == std::errc() && ptr == text.data() + text.size();
}

bool parseDevice(std::string_view text, unsigned& major, unsigned& minor) {
    auto colon = text.find(':');
    if (colon == std::string_view::npos) return false;
    return parseNumber(text.substr(0, colon), major) && parseNumber(text.substr(colon + 1), minor);
}

bool isOctal(char c) { return c >= '0' && c <= '7'; }

}  // namespace

std::string MountInfo::unescape(std::string_view field) {
    std::string out;
    out.reserve(field.size());
    for (std::size_t i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size() && isOctal(field[i + 1]) && isOctal(field[i + 2]) &&
            isOctal(field[i + 3])) {
            int value = (field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 + (field[i + 3] - '0');
            out.push_back(static_cast<char>(value));
            i += 3;
        } else {
            out.push_back(field[i]);
        }
    }
    return out;
}

std::vector<MountInfoEntry> MountInfo::parse(std::string_view text, int* malformed) {
    std::vector<MountInfoEntry> entries;
    int bad = 0;
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find('\n', start);
        if (end == std::string_view::npos) end = text.size();
        std::string_view line = text.substr(start, end - start);
        start = end + 1;
        if (line.find_first_not_of(" \t\r") == std::string_view::npos) continue;

        auto fields = splitFields(line);
        // Six fixed fields, optional fields, the separator, then three more.
        std::size_t separator = 6;
        while (separator < fields.size() && fields[separator] != "-") ++separator;
        MountInfoEntry entry;
        bool ok = separator + 2 < fields.size() && parseNumber(fields[0], entry.mountID) && parseNumber(fields[1], entry.parentID) &&
                  parseDevice(fields[2], entry.major, entry.minor);
        if (!ok) {
            ++bad;
            continue;
        }
        entry.root = unescape(fields[3]);
        entry.mountPoint = unescape(fields[4]);
        entry.mountOptions = std::string(fields[5]);
        entry.fsType = unescape(fields[separator + 1]);
        entry.source = unescape(fields[separator + 2]);
        if (separator + 3 < fields.size()) entry.superOptions = std::string(fields[separator + 3]);
        entries.push_back(std::move(entry));
    }
    if (malformed) *malformed = bad;
    return entries;
}

std::vector<MountInfoEntry> MountInfo::read(const std::string& path) {
    std::ifstream in(path);
    if (!in) return {};
    std::ostringstream text;
    text << in.rdbuf();
    return parse(text.str());
}

}  // namespace ql
