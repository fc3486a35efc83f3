#include "QLProtocol/runners/QlcopyEvent.h"

#include <gtest/gtest.h>

namespace {

using ql::QlcopyEvent;
using Error = ql::QlcopyEventDecodeError;
using Kind = QlcopyEvent::Kind;

QlcopyEvent decodeOk(std::string_view line) {
    auto result = QlcopyEvent::decode(line);
    EXPECT_TRUE(result.has_value()) << line << ": " << (result ? "" : result.error().message());
    EXPECT_TRUE(result && result->has_value()) << line;
    return result && *result ? **result : QlcopyEvent{};
}

Error decodeError(std::string_view line) {
    auto result = QlcopyEvent::decode(line);
    EXPECT_FALSE(result.has_value()) << line;
    return result ? Error{} : result.error();
}

TEST(QlcopyEvent, EveryKindByItsName) {
    for (auto kind : QlcopyEvent::kAllKinds) {
        std::string name(QlcopyEvent::kindName(kind));
        EXPECT_EQ(QlcopyEvent::kindNamed(name), kind);
        EXPECT_EQ(decodeOk(R"({"type":")" + name + "\"}").type, kind);
    }
    EXPECT_EQ(QlcopyEvent::kindName(Kind::phaseStarted), "phase_started");
    EXPECT_EQ(QlcopyEvent::kindName(Kind::scanMode), "scan_mode");
}

TEST(QlcopyEvent, AbsentIsNotZero) {
    auto absent = decodeOk(R"({"type":"progress"})");
    EXPECT_EQ(absent.workDoneBytes, std::nullopt);
    EXPECT_EQ(absent.errors, std::nullopt);
    EXPECT_EQ(absent.scoutDone, std::nullopt);

    auto zero = decodeOk(R"({"type":"progress","work_done_bytes":0,"errors":0,"scout_done":false})");
    EXPECT_EQ(zero.workDoneBytes, 0);
    EXPECT_EQ(zero.errors, 0);
    EXPECT_EQ(zero.scoutDone, false);

    // null reads as absent.
    auto null = decodeOk(R"({"type":"progress","work_done_bytes":null,"path":null})");
    EXPECT_EQ(null.workDoneBytes, std::nullopt);
    EXPECT_EQ(null.path, std::nullopt);
}

TEST(QlcopyEvent, ValuesAndTheirKinds) {
    auto e = decodeOk(
        R"({"type":"summary","ts":-5,"elapsed_s":3,"bytes_copied":9223372036854775807,"src_is_solid_state":true,)"
        R"("dst_is_solid_state":7,"effective_rate_bps":1.5e9,"errors":2147483647,"first_error_errno":-1,)"
        R"("meta_reasons":{"mode":3,"xattr":0},"deferred_paths":["a","b/c"],"interrupted":true,"files_skipped":12.0,)"
        R"("message":"Résumé – “quoted”","unknown_key":[1,{"x":2}]})");
    EXPECT_EQ(e.ts, -5);
    EXPECT_EQ(e.elapsedS, 3.0);
    EXPECT_EQ(e.bytesCopied, std::numeric_limits<std::int64_t>::max());
    EXPECT_EQ(e.srcIsSolidState, 1);
    EXPECT_EQ(e.dstIsSolidState, 7);
    EXPECT_EQ(e.effectiveRateBps, 1.5e9);
    EXPECT_EQ(e.errors, std::numeric_limits<std::int32_t>::max());
    EXPECT_EQ(e.firstErrorErrno, -1);
    EXPECT_EQ(e.metaReasons, (std::map<std::string, std::int32_t>{{"mode", 3}, {"xattr", 0}}));
    EXPECT_EQ(e.deferredPaths, (std::vector<std::string>{"a", "b/c"}));
    EXPECT_EQ(e.interrupted, true);
    EXPECT_EQ(e.filesSkipped, 12);
    EXPECT_EQ(e.message, "Résumé – “quoted”");
}

TEST(QlcopyEvent, BlankLinesHoldNoEvent) {
    for (std::string_view line : {"", " ", "\t \r"}) {
        auto result = QlcopyEvent::decode(line);
        ASSERT_TRUE(result.has_value());
        EXPECT_FALSE(result->has_value());
    }
}

TEST(QlcopyEvent, BadLinesAreErrorsThatSayWhy) {
    struct Case {
        const char* line;
        Error::Kind kind;
        const char* key;
    };
    const Case cases[] = {
        {R"({"type":"progress")", Error::Kind::invalidJSON, ""},
        {"qlcopy: warning: something on stdout by mistake", Error::Kind::invalidJSON, ""},
        {R"(["type","progress"])", Error::Kind::notAnObject, ""},
        {"42", Error::Kind::notAnObject, ""},
        {R"({"kind":"progress"})", Error::Kind::missingType, "type"},
        {R"({"type":7})", Error::Kind::missingType, "type"},
        {R"({"type":"Progress"})", Error::Kind::unknownType, "type"},
        {R"({"type":"checkpoint"})", Error::Kind::unknownType, "type"},
        {R"({"type":"progress","bytes_copied":"12"})", Error::Kind::typeMismatch, "bytes_copied"},
        {R"({"type":"progress","scout_done":1})", Error::Kind::typeMismatch, "scout_done"},
        {R"({"type":"progress","current_copy_path":5})", Error::Kind::typeMismatch, "current_copy_path"},
        {R"({"type":"progress","rate_window_bps":true})", Error::Kind::typeMismatch, "rate_window_bps"},
        {R"({"type":"summary","meta_reasons":[1]})", Error::Kind::typeMismatch, "meta_reasons"},
        {R"({"type":"summary","meta_reasons":{"a":"b"}})", Error::Kind::typeMismatch, "meta_reasons"},
        {R"({"type":"summary","deferred_paths":["a",3]})", Error::Kind::typeMismatch, "deferred_paths"},
        {R"({"type":"summary","deferred_paths":"a"})", Error::Kind::typeMismatch, "deferred_paths"},
        {R"({"type":"summary","errors":2147483648})", Error::Kind::outOfRange, "errors"},
        {R"({"type":"summary","errors":-2147483649})", Error::Kind::outOfRange, "errors"},
        {R"({"type":"progress","bytes_copied":9223372036854775808})", Error::Kind::outOfRange, "bytes_copied"},
        {R"({"type":"progress","bytes_copied":1.5})", Error::Kind::outOfRange, "bytes_copied"},
        {R"({"type":"progress","bytes_copied":1e19})", Error::Kind::outOfRange, "bytes_copied"},
        {R"({"type":"summary","meta_reasons":{"a":4294967296}})", Error::Kind::outOfRange, "meta_reasons"},
    };
    for (const auto& c : cases) {
        auto error = decodeError(c.line);
        EXPECT_EQ(error.kind, c.kind) << c.line << " → " << error.message();
        EXPECT_EQ(error.key, c.key) << c.line;
        EXPECT_FALSE(error.message().empty());
    }
    EXPECT_EQ(decodeError(R"({"type":"checkpoint"})").message(), "unknown event type \"checkpoint\"");
    EXPECT_EQ(decodeError(R"({"type":"progress","bytes_copied":"12"})").message(),
              "\"bytes_copied\" should be an integer but is string");
}

TEST(QlcopyEvent, WhatTheEngineWritesReadsBackTheSame) {
    auto original = decodeOk(
        R"({"type":"stall","ts":1718000000000,"elapsed_s":0.1,"subject":"executor","stalled_s":30.25,)"
        R"("path":"Users/ann/a b","scanner_path":"s","executor_path":"e","entries_seen":3,"signal":15,)"
        R"("meta_reasons":{"m":1},"deferred_paths":[],"sel":false,"src_is_solid_state":0})");
    auto again = decodeOk(ql::dumpJson(original.toJson()));
    EXPECT_EQ(again, original);
    EXPECT_EQ(original.toJson().size(), 14u);
}

}  // namespace
