// What keeps old and new peers talking: field numbers, explicit presence, reserved numbers,
// oneof membership, and the preservation of fields and enum numbers this build doesn't know.
#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "QLProtocol/proto/WireServices.h"
#include "QLProtocol/proto/envelope.pb.h"
#include "QLProtocol/proto/identity.pb.h"
#include "QLProtocol/proto/runs.pb.h"
#include "QLProtocol/proto/tiles.pb.h"
#include "QLProtocol/proto/volumes.pb.h"

namespace {

namespace v1 = ql4::transport::v1;
using google::protobuf::Descriptor;
using google::protobuf::DescriptorPool;
using google::protobuf::FieldDescriptor;
using google::protobuf::FileDescriptor;

const Descriptor* message(const std::string& name) {
    return DescriptorPool::generated_pool()->FindMessageTypeByName("ql4.transport.v1." + name);
}

void collectFiles(const FileDescriptor* file, std::set<const FileDescriptor*>& out) {
    if (!out.insert(file).second) return;
    for (int i = 0; i < file->dependency_count(); ++i) collectFiles(file->dependency(i), out);
}

// Every file of the package: the services file and what it imports, and the envelopes.
std::vector<const FileDescriptor*> packageFiles() {
    std::set<const FileDescriptor*> files;
    collectFiles(&ql::WireServices::file(), files);
    collectFiles(v1::WireRequest::descriptor()->file(), files);
    return {files.begin(), files.end()};
}

void collectMessages(const Descriptor* d, std::vector<const Descriptor*>& out) {
    out.push_back(d);
    for (int i = 0; i < d->nested_type_count(); ++i) {
        if (!d->nested_type(i)->options().map_entry()) collectMessages(d->nested_type(i), out);
    }
}

TEST(WireSchema, ExactlyTheseScalarsHaveExplicitPresence) {
    const std::set<std::string> expected = {
        "ql4.transport.v1.ActiveRun.as_bootable",          "ql4.transport.v1.Progress.work_done_bytes",
        "ql4.transport.v1.RunCompleted.scout_total_files", "ql4.transport.v1.RunCompleted.scout_total_bytes",
        "ql4.transport.v1.VolumeSummary.case_sensitive",   "ql4.transport.v1.CopyTile.sort_order",
        "ql4.transport.v1.RunRecord.as_bootable",          "ql4.transport.v1.RunRecord.copy_mode",
        "ql4.transport.v1.RunRecord.ran_source_subpath",   "ql4.transport.v1.RunRecord.ran_destination_subpath",
        "ql4.transport.v1.RunRecord.scout_total_files",    "ql4.transport.v1.RunRecord.scout_total_bytes",
    };
    std::set<std::string> actual;
    const auto files = packageFiles();
    EXPECT_EQ(files.size(), 9u);
    for (const FileDescriptor* file : files) {
        EXPECT_EQ(file->package(), "ql4.transport.v1");
        std::vector<const Descriptor*> messages;
        for (int i = 0; i < file->message_type_count(); ++i) collectMessages(file->message_type(i), messages);
        for (const Descriptor* d : messages) {
            for (int i = 0; i < d->field_count(); ++i) {
                const FieldDescriptor* f = d->field(i);
                if (f->has_optional_keyword()) actual.insert(f->full_name());
                // Encodings are plain varints everywhere: no zig-zag, no fixed width.
                EXPECT_NE(f->type(), FieldDescriptor::TYPE_SINT32) << f->full_name();
                EXPECT_NE(f->type(), FieldDescriptor::TYPE_SINT64) << f->full_name();
                EXPECT_NE(f->type(), FieldDescriptor::TYPE_FIXED32) << f->full_name();
                EXPECT_NE(f->type(), FieldDescriptor::TYPE_FIXED64) << f->full_name();
                EXPECT_NE(f->type(), FieldDescriptor::TYPE_SFIXED32) << f->full_name();
                EXPECT_NE(f->type(), FieldDescriptor::TYPE_SFIXED64) << f->full_name();
            }
        }
    }
    EXPECT_EQ(actual, expected);
}

struct ReservedCase {
    const char* message;
    std::set<int> numbers;
    std::set<std::string> names;
};

TEST(WireSchema, RetiredNumbersAndNamesStayReserved) {
    const std::vector<ReservedCase> cases = {
        {"DiskImageKey", {1}, {"path"}},
        {"ImageCreateRequest", {8}, {}},
        {"PingResponse", {5}, {}},
        {"CopyTile", {3, 4, 5, 6, 13, 31}, {}},
        {"ShortcutChoice", {2, 3}, {}},
        {"Schedule", {6, 7}, {"on_failure", "retries"}},
        {"TileEvent", {4}, {"binding_state"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        const Descriptor* d = message(c.message);
        ASSERT_NE(d, nullptr);
        std::set<int> numbers;
        for (int i = 0; i < d->reserved_range_count(); ++i) {
            for (int n = d->reserved_range(i)->start; n < d->reserved_range(i)->end; ++n) numbers.insert(n);
        }
        std::set<std::string> names;
        for (int i = 0; i < d->reserved_name_count(); ++i) names.insert(d->reserved_name(i));
        EXPECT_EQ(numbers, c.numbers);
        EXPECT_EQ(names, c.names);
    }
}

struct OneofCase {
    const char* message;
    const char* oneof;
    std::vector<int> members;
};

TEST(WireSchema, OneofsHoldTheirMembers) {
    std::vector<int> payload;
    for (int n = 3; n <= 24; ++n) payload.push_back(n);
    const std::vector<OneofCase> cases = {
        {"VolumeKey", "kind", {1, 2, 3, 4, 5, 6, 7}},
        {"DiskImageKey", "host", {3, 4}},
        {"ClonerEvent", "payload", payload},
        {"VolumeEvent", "event", {1, 2, 3, 4}},
        {"ImageProbeRequest", "host", {1, 2}},
        {"ImageCreateRequest", "host", {1, 2}},
        {"StatImageDestinationRequest", "host", {1, 2}},
        {"DiskImageBinding", "host", {1, 2}},
        {"TileEvent", "event", {1, 2, 3}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.message) + "." + c.oneof);
        const Descriptor* d = message(c.message);
        ASSERT_NE(d, nullptr);
        const auto* oneof = d->FindOneofByName(c.oneof);
        ASSERT_NE(oneof, nullptr);
        std::vector<int> members;
        for (int i = 0; i < oneof->field_count(); ++i) members.push_back(oneof->field(i)->number());
        EXPECT_EQ(members, c.members);
    }
}

TEST(WireSchema, CopyRequestKeepsItsDeclarationOrder) {
    const std::vector<int> order = {1,  2,  3,  8,  9,  4,  5,  6,  7,  10, 11, 12, 13,
                                    14, 25, 26, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24};
    const Descriptor* d = v1::CopyRequest::descriptor();
    std::vector<int> actual;
    for (int i = 0; i < d->field_count(); ++i) actual.push_back(d->field(i)->number());
    EXPECT_EQ(actual, order);
}

// Hand-written wire bytes, so the tests state exactly what a newer peer sends.
void varint(std::string& out, std::uint64_t v) {
    while (v >= 0x80) {
        out.push_back(static_cast<char>((v & 0x7F) | 0x80));
        v >>= 7;
    }
    out.push_back(static_cast<char>(v));
}
void fieldVarint(std::string& out, int number, std::uint64_t v) {
    varint(out, static_cast<std::uint64_t>(number) << 3);
    varint(out, v);
}
void fieldBytes(std::string& out, int number, const std::string& bytes) {
    varint(out, (static_cast<std::uint64_t>(number) << 3) | 2);
    varint(out, bytes.size());
    out += bytes;
}
void fieldFixed64(std::string& out, int number, std::uint64_t v) {
    varint(out, (static_cast<std::uint64_t>(number) << 3) | 1);
    for (int i = 0; i < 8; ++i) out.push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
}

const std::string kUuid16(16, '\x5A');

TEST(WirePreservation, UnknownEnumNumbersAndFieldsSurviveDecodeEncode) {
    // A reference from a newer peer: target kind 7, role 42, map type 99, family 31, and an
    // unknown field in three messages.
    std::string key;
    fieldBytes(key, 1, kUuid16);
    std::string role;
    fieldVarint(role, 1, 42);
    fieldBytes(role, 9, "future role detail");
    std::string target;
    fieldVarint(target, 1, 7);
    fieldBytes(target, 2, role);
    std::string invariants;
    fieldVarint(invariants, 1, 500'000'000'000ULL);
    fieldVarint(invariants, 2, 99);
    fieldVarint(invariants, 3, 31);
    fieldFixed64(invariants, 12, 0x0102030405060708ULL);
    std::string ref;
    fieldBytes(ref, 1, key);
    fieldBytes(ref, 2, target);
    fieldBytes(ref, 3, invariants);
    fieldBytes(ref, 4, "Backup");
    fieldVarint(ref, 50, 1);
    fieldBytes(ref, 51, "newer");

    v1::VolumeRef decoded;
    ASSERT_TRUE(decoded.ParseFromString(ref));
    EXPECT_EQ(static_cast<int>(decoded.target().kind()), 7);
    EXPECT_EQ(static_cast<int>(decoded.target().role().kind()), 42);
    EXPECT_EQ(static_cast<int>(decoded.invariants().partition_map_type()), 99);
    EXPECT_EQ(static_cast<int>(decoded.invariants().filesystem_family()), 31);
    EXPECT_EQ(decoded.SerializeAsString(), ref);
}

TEST(WirePreservation, AnEventWithAnUnknownPayloadIsKeptNotTerminal) {
    std::string runId;
    fieldBytes(runId, 1, kUuid16);
    std::string event;
    fieldVarint(event, 1, 1'700'000'000'000'000'000ULL);
    fieldBytes(event, 2, runId);
    std::string futurePayload;
    fieldVarint(futurePayload, 1, 3);
    fieldBytes(event, 40, futurePayload);

    v1::ClonerEvent decoded;
    ASSERT_TRUE(decoded.ParseFromString(event));
    EXPECT_EQ(decoded.payload_case(), v1::ClonerEvent::PAYLOAD_NOT_SET);
    EXPECT_EQ(decoded.run_id().value(), kUuid16);
    EXPECT_EQ(decoded.SerializeAsString(), event);
}

TEST(WirePreservation, RetiredNumbersAreSkippedAsUnknownAndReEncoded) {
    std::string tile;
    fieldBytes(tile, 1, "A0B1C2D3-0000-4000-8000-000000000001");
    fieldVarint(tile, 28, 0);  // sort_order present and zero
    fieldVarint(tile, 4, 2);   // retired
    fieldBytes(tile, 31, "old");

    v1::CopyTile decodedTile;
    ASSERT_TRUE(decodedTile.ParseFromString(tile));
    EXPECT_TRUE(decodedTile.has_sort_order());
    EXPECT_EQ(decodedTile.sort_order(), 0);
    EXPECT_EQ(decodedTile.SerializeAsString(), tile);

    std::string image;  // an old sender still writing field 1 of DiskImageKey
    fieldBytes(image, 2, kUuid16);
    fieldBytes(image, 4, kUuid16);
    fieldBytes(image, 5, "Images/Backup.sparsebundle");
    fieldBytes(image, 1, "/Volumes/Host/Images/Backup.sparsebundle");
    v1::DiskImageKey decodedImage;
    ASSERT_TRUE(decodedImage.ParseFromString(image));
    EXPECT_EQ(decodedImage.relative_path(), "Images/Backup.sparsebundle");
    EXPECT_EQ(decodedImage.host_case(), v1::DiskImageKey::kHostVolumeUuid);
    EXPECT_EQ(decodedImage.SerializeAsString(), image);

    std::string tileEvent;
    fieldBytes(tileEvent, 3, "gone");
    fieldBytes(tileEvent, 4, "verdict");
    v1::TileEvent decodedEvent;
    ASSERT_TRUE(decodedEvent.ParseFromString(tileEvent));
    EXPECT_EQ(decodedEvent.removed_id(), "gone");
    EXPECT_EQ(decodedEvent.SerializeAsString(), tileEvent);
}

TEST(WirePreservation, UnknownNumbersInARepeatedEnumSurvive) {
    std::string packed;
    varint(packed, 1);
    varint(packed, 9);
    varint(packed, 6);
    std::string request;
    fieldBytes(request, 1, "tile");
    fieldBytes(request, 7, packed);

    v1::CopyRequest decoded;
    ASSERT_TRUE(decoded.ParseFromString(request));
    ASSERT_EQ(decoded.on_success_size(), 3);
    EXPECT_EQ(static_cast<int>(decoded.on_success(1)), 9);
    EXPECT_EQ(decoded.SerializeAsString(), request);
}

TEST(WirePresence, AbsentAndZeroOptionalScalarsDiffer) {
    v1::ActiveRun run;
    EXPECT_FALSE(run.has_as_bootable());
    run.set_as_bootable(false);
    v1::ActiveRun back;
    ASSERT_TRUE(back.ParseFromString(run.SerializeAsString()));
    EXPECT_TRUE(back.has_as_bootable());
    EXPECT_FALSE(back.as_bootable());

    v1::RunRecord record;
    record.set_copy_mode(v1::COPY_MODE_SMART_UPDATE);
    v1::RunRecord recordBack;
    ASSERT_TRUE(recordBack.ParseFromString(record.SerializeAsString()));
    EXPECT_TRUE(recordBack.has_copy_mode());
    EXPECT_FALSE(v1::RunRecord().has_copy_mode());

    v1::Progress progress;
    progress.set_work_done_bytes(0);
    v1::Progress progressBack;
    ASSERT_TRUE(progressBack.ParseFromString(progress.SerializeAsString()));
    EXPECT_TRUE(progressBack.has_work_done_bytes());
}

}  // namespace
