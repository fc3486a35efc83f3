#include "QLSupport/PropertyList.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

namespace ql {
namespace {

using namespace std::chrono;
using Kind = PlistError::Kind;

SystemTime at(std::int64_t unixSeconds, std::int64_t micros = 0) {
    return SystemTime{} + seconds{unixSeconds} + microseconds{micros};
}

std::string fromHex(std::string_view hex) {
    std::string out;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
        out.push_back(static_cast<char>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16)));
    }
    return out;
}

// One value of every kind, with awkward members: keys out of alphabetical order, strings that
// need escaping, data with NUL bytes, both ends of the integer range, an unsigned value above it.
PlistValue everyKind() {
    PlistDictionary inner{{"zeta", PlistValue(true)}, {"alpha", PlistValue(false)}, {"mid", PlistValue("x")}};
    return PlistDictionary{
        {"string", "a<b> & \"c\" 'd' café — 😀"},
        {"empty string", ""},
        {"true", true},
        {"false", false},
        {"zero", 0},
        {"negative", std::int64_t{-5}},
        {"min", std::numeric_limits<std::int64_t>::min()},
        {"max", std::numeric_limits<std::int64_t>::max()},
        {"unsigned", std::numeric_limits<std::uint64_t>::max()},
        {"just above signed", std::uint64_t{9'223'372'036'854'775'808ull}},
        {"real", 0.1},
        {"tiny", -1e-300},
        {"huge", 1.2345678901234567e300},
        {"third", 1.0 / 3.0},
        {"data", PlistValue::Bytes{0x00, 0x01, 0xFE, 0xFF, 0x00}},
        {"empty data", PlistValue::Bytes{}},
        {"date", PlistDate{at(1'700'000'000)}},
        {"old date", PlistDate{at(-1'000'000'000)}},
        {"array", PlistValue::Array{1, "two", PlistValue::Array{}, PlistDictionary{}}},
        {"dict", inner},
    };
}

TEST(PropertyList, EveryKindRoundTripsThroughBothFormats) {
    const PlistValue original = everyKind();
    for (auto format : {PropertyList::Format::xml, PropertyList::Format::binary}) {
        auto bytes = PropertyList::write(original, format);
        ASSERT_TRUE(bytes) << bytes.error().message();
        EXPECT_EQ(PropertyList::detectFormat(*bytes), format);
        auto back = PropertyList::read(*bytes);
        ASSERT_TRUE(back) << back.error().message();
        EXPECT_EQ(*back, original) << *bytes;
        // Key order is kept, not sorted.
        std::vector<std::string> keys;
        for (const auto& [k, v] : *back->find("dict")->asDict()) keys.push_back(k);
        EXPECT_EQ(keys, (std::vector<std::string>{"zeta", "alpha", "mid"}));
    }
}

TEST(PropertyList, IntegersKeepSignAndWidth) {
    auto back = PropertyList::read(PropertyList::writeXml(everyKind()).value()).value();
    EXPECT_TRUE(back.find("unsigned")->isUnsignedInteger());
    EXPECT_EQ(*back.find("unsigned")->asUnsignedInteger(), std::numeric_limits<std::uint64_t>::max());
    EXPECT_FALSE(back.find("negative")->isUnsignedInteger());
    EXPECT_EQ(*back.find("negative")->asInteger(), -5);
    // Small unsigned values are ordinary integers, equal to their signed twins.
    EXPECT_EQ(PlistValue(std::uint64_t{7}), PlistValue(7));
    EXPECT_NE(PlistValue(std::numeric_limits<std::uint64_t>::max()), PlistValue(std::int64_t{-1}));
}

TEST(PropertyList, BinaryKeepsUidsAndMicrosecondsWhileXmlKeepsWholeSeconds) {
    const PlistValue v = PlistDictionary{{"uid", PlistUid{42}}, {"when", PlistDate{at(1'700'000'000, 250'000)}}};
    auto bin = PropertyList::read(PropertyList::writeBinary(v).value()).value();
    EXPECT_EQ(bin, v);
    // Arbitrary microseconds survive binary to within one (the format holds a double).
    const PlistDate odd{at(1'700'000'000, 123'457)};
    auto oddBack = PropertyList::read(PropertyList::writeBinary(PlistValue(odd)).value()).value();
    EXPECT_LE(std::chrono::abs(oddBack.asDate()->instant - odd.instant), microseconds{1});

    auto xml = PropertyList::read(PropertyList::writeXml(v).value()).value();
    EXPECT_EQ(*xml.find("when")->asDate(), PlistDate{at(1'700'000'000)});
    ASSERT_TRUE(xml.find("uid")->isDict());
    EXPECT_EQ(*xml.find("uid")->find("CF$UID"), PlistValue(42));
}

TEST(PropertyList, ReadsBinaryFromAnotherWriter) {
    // Written by another implementation: a 128-bit integer, a UTF-16 string, a date as a double.
    const std::string bytes = fromHex(
        "62706c6973743030d90102030405060708090a0b0c0d0e0f101115546e616d65516e536269675172526f6b54626c6f62547768656e54"
        "6c69737453756e6953416e6e13fffffffffffffff9140000000000000000ffffffffffffffff23400400000000000009430001ff3341"
        "c5c900eb800000a312131410015374776f086900630061006600e9002020140020d83dde00081b202226282b30353a3e424b5c65666a"
        "7377797d7e0000000000000101000000000000001600000000000000000000000000000091");
    auto v = PropertyList::read(bytes);
    ASSERT_TRUE(v) << v.error().message();
    const PlistValue expected = PlistDictionary{
        {"name", "Ann"},
        {"n", std::int64_t{-7}},
        {"big", std::numeric_limits<std::uint64_t>::max()},
        {"r", 2.5},
        {"ok", true},
        {"blob", PlistValue::Bytes{0x00, 0x01, 0xFF}},
        {"when", PlistDate{at(1'709'296'215)}},
        {"list", PlistValue::Array{1, "two", false}},
        {"uni", "café — 😀"},
    };
    EXPECT_EQ(*v, expected);
}

TEST(PropertyList, ReadsHandWrittenXml) {
    const std::string xml = R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<!-- a comment with <array> in it -->
<dict>
  <key>Mount Point</key><string>/Volumes/Backup &amp; More</string>
  <key>Size</key><integer>500107862016</integer>
  <key>Writable</key><true/>
  <key>Ratio</key><real>0.5</real>
  <key>Blob</key><data>AAEC</data>
  <key>When</key><date>2024-03-01T12:30:15Z</date>
  <key>Parts</key><array><string>a</string><dict/></array>
</dict>
</plist>)";
    auto v = PropertyList::read(xml);
    ASSERT_TRUE(v) << v.error().message();
    EXPECT_EQ(*v->find("Mount Point"), PlistValue("/Volumes/Backup & More"));
    EXPECT_EQ(*v->find("Size"), PlistValue(std::int64_t{500107862016}));
    EXPECT_EQ(*v->find("Writable"), PlistValue(true));
    EXPECT_EQ(*v->find("Ratio"), PlistValue(0.5));
    EXPECT_EQ(*v->find("Blob"), PlistValue(PlistValue::Bytes{0, 1, 2}));
    EXPECT_EQ(*v->find("When"), PlistValue(PlistDate{at(1'709'296'215)}));
    EXPECT_EQ(*v->find("Parts"), PlistValue(PlistValue::Array{"a", PlistDictionary{}}));
}

std::string nested(int depth) {
    std::string s = "<?xml version=\"1.0\"?><plist version=\"1.0\">";
    for (int i = 0; i < depth; ++i) s += "<array>";
    for (int i = 0; i < depth; ++i) s += "</array>";
    return s + "</plist>";
}

// A binary property list whose objects 0..n-1 are arrays holding object i+1 twice, and object n
// an empty string: tiny on disk, 2^n values once expanded.
std::string sharedChain(int n) {
    std::string body = "bplist00";
    std::vector<std::size_t> offsets;
    for (int i = 0; i < n; ++i) {
        offsets.push_back(body.size());
        body += static_cast<char>(0xA2);
        body += static_cast<char>((i + 1) >> 8);
        body += static_cast<char>((i + 1) & 0xFF);
        body += static_cast<char>((i + 1) >> 8);
        body += static_cast<char>((i + 1) & 0xFF);
    }
    offsets.push_back(body.size());
    body += static_cast<char>(0x50);
    const std::size_t table = body.size();
    for (auto o : offsets) {
        body += static_cast<char>(o >> 8);
        body += static_cast<char>(o & 0xFF);
    }
    std::string trailer(6, '\0');
    trailer += '\x02';  // offset size
    trailer += '\x02';  // reference size
    auto be64 = [](std::uint64_t v) {
        std::string s(8, '\0');
        for (int i = 7; i >= 0; --i, v >>= 8) s[i] = static_cast<char>(v & 0xFF);
        return s;
    };
    return body + trailer + be64(offsets.size()) + be64(0) + be64(table);
}

TEST(PropertyList, RefusesBadInputWithAClearSentence) {
    const std::string goodBinary = PropertyList::writeBinary(everyKind()).value();
    const std::string selfContaining = fromHex("62706c6973743030a1000800000000000001010000000000000001"
                                               "0000000000000000000000000000000a");
    const std::string nullObject = fromHex("62706c697374303000080000000000000101000000000000000100000000000000000000000000000009");
    const std::string latin1 = "<plist version=\"1.0\"><string>caf\xE9</string></plist>";
    // {"a\0": 1}: libplist aborts when asked for such a key, so it must never get that far.
    const std::string nulKey = fromHex("62706c6973743030d10102526100100108" "0b0e0000000000000101"
                                       "00000000000000030000000000000000" "0000000000000010");
    const std::string nulInXml = std::string("<plist version=\"1.0\"><dict><key>a") + '\0' + "</key><true/></dict></plist>";
    struct Case {
        const char* name;
        std::string bytes;
        Kind kind;
        const char* says;
    } cases[] = {
        {"empty", "", Kind::empty, "The property list is empty."},
        {"text", "hello, world", Kind::malformed, "neither a binary property list nor a well-formed XML"},
        {"unclosed XML", "<plist version=\"1.0\"><dict><key>a</key>", Kind::malformed, "well-formed XML"},
        {"truncated binary", goodBinary.substr(0, goodBinary.size() / 2), Kind::malformed, "binary property list is malformed"},
        {"header only", "bplist00", Kind::malformed, "too short"},
        {"array holding itself", selfContaining, Kind::malformed, "contains itself"},
        {"null object", nullObject, Kind::malformed, "could not be parsed"},
        {"Latin-1 string", latin1, Kind::unsupportedValue, "not valid UTF-8"},
        {"binary key with NUL", nulKey, Kind::unsupportedValue, "key with a NUL"},
        {"NUL byte in XML", nulInXml, Kind::malformed, "NUL byte"},
        {"deep XML", nested(PropertyList::maxDepth + 1), Kind::tooDeep, "more than 512 levels"},
        {"very deep XML", nested(200'000), Kind::tooDeep, "more than 512 levels"},
        {"self-multiplying binary", sharedChain(40), Kind::tooLarge, "expand to more than"},
    };
    for (const auto& c : cases) {
        auto v = PropertyList::read(c.bytes);
        ASSERT_FALSE(v) << c.name;
        EXPECT_EQ(v.error().kind, c.kind) << c.name << ": " << v.error().message();
        EXPECT_NE(v.error().message().find(c.says), std::string::npos) << c.name << ": " << v.error().message();
    }
    // The depth limit is a limit, not an off-by-one: exactly maxDepth levels read fine, and a
    // modest shared chain expands normally.
    EXPECT_TRUE(PropertyList::read(nested(PropertyList::maxDepth)));
    auto chain = PropertyList::read(sharedChain(8));
    ASSERT_TRUE(chain) << chain.error().message();
}

TEST(PropertyList, DeepBinaryIsRefusedBeforeParsing) {
    PlistValue v = PlistValue::Array{};
    for (int i = 0; i < PropertyList::maxDepth; ++i) v = PlistValue::Array{v};
    // One level too deep to write...
    auto written = PropertyList::writeBinary(v);
    ASSERT_FALSE(written);
    EXPECT_EQ(written.error().kind, Kind::tooDeep);
    // ...and one level less is written and read back.
    v = std::move(v.asArray()->front());
    auto ok = PropertyList::writeBinary(v);
    ASSERT_TRUE(ok) << ok.error().message();
    EXPECT_EQ(PropertyList::read(*ok).value(), v);
}

TEST(PropertyList, RefusesToWriteWhatTheFormatsCannotHold) {
    struct Case {
        const char* name;
        PlistValue value;
        const char* says;
    } cases[] = {
        {"NUL in string", PlistValue(std::string("a\0b", 3)), "NUL"},
        {"NUL in key", PlistDictionary{{std::string("k\0", 2), 1}}, "NUL"},
        {"invalid UTF-8", PlistValue(std::string("\xFF\xFE")), "UTF-8"},
        {"far future", PlistValue(PlistDate{at(4'000'000'000)}), "2069"},
        {"far past", PlistValue(PlistDate{at(-2'000'000'000)}), "1932"},
    };
    for (const auto& c : cases) {
        for (auto format : {PropertyList::Format::xml, PropertyList::Format::binary}) {
            auto out = PropertyList::write(c.value, format);
            ASSERT_FALSE(out) << c.name;
            EXPECT_EQ(out.error().kind, Kind::unwritable) << c.name;
            EXPECT_NE(out.error().message().find(c.says), std::string::npos) << out.error().message();
        }
    }
}

TEST(PropertyList, SurvivesMangledInput) {
    const std::string seeds[] = {PropertyList::writeBinary(everyKind()).value(),
                                 PropertyList::writeXml(everyKind()).value()};
    std::mt19937 rng(12345);
    int read = 0;
    for (const auto& seed : seeds) {
        for (int round = 0; round < 1500; ++round) {
            std::string bytes = seed;
            const int edits = 1 + static_cast<int>(rng() % 4);
            for (int e = 0; e < edits; ++e) {
                const std::size_t at = rng() % bytes.size();
                switch (rng() % 3) {
                    case 0: bytes[at] = static_cast<char>(rng()); break;
                    case 1: bytes.resize(std::max<std::size_t>(at, 1)); break;
                    default: bytes.insert(at, 1, static_cast<char>(rng())); break;
                }
            }
            auto v = PropertyList::read(bytes);
            if (v) {
                ++read;
                // Whatever was read can be written again or is refused with a reason.
                auto again = PropertyList::writeXml(*v);
                if (!again) {
                    EXPECT_FALSE(again.error().message().empty());
                }
            } else {
                EXPECT_FALSE(v.error().message().empty());
            }
        }
    }
    EXPECT_GT(read, 0);
}

TEST(PlistDictionary, SetReplacesInPlaceAndEraseKeepsOrder) {
    PlistDictionary d{{"b", 1}, {"a", 2}, {"c", 3}};
    d.set("a", "two");
    d.set("d", 4);
    EXPECT_TRUE(d.erase("b"));
    EXPECT_FALSE(d.erase("b"));
    std::vector<std::string> keys;
    for (const auto& [k, v] : d) keys.push_back(k);
    EXPECT_EQ(keys, (std::vector<std::string>{"a", "c", "d"}));
    EXPECT_EQ(*d.find("a"), PlistValue("two"));
    // Order takes part in equality.
    EXPECT_NE((PlistDictionary{{"a", 1}, {"b", 2}}), (PlistDictionary{{"b", 2}, {"a", 1}}));
    EXPECT_EQ(PlistValue(std::nan("")), PlistValue(std::nan("")));
}

}  // namespace
}  // namespace ql
