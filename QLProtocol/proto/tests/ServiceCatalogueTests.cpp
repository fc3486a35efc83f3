// The service descriptors are the method table that stubs, adapters and routing rely on:
// these tests hold them to the catalogue, method by method.
#include <google/protobuf/descriptor.h>
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "QLProtocol/proto/WireServices.h"

namespace {

using google::protobuf::MethodDescriptor;
using google::protobuf::ServiceDescriptor;

struct ExpectedMethod {
    const char* service;
    const char* method;
    const char* request;
    const char* response;
    bool serverStream;
};

constexpr bool kStream = true;
constexpr bool kUnary = false;

const std::vector<ExpectedMethod>& catalogue() {
    static const std::vector<ExpectedMethod> table = {
        {"CopyService", "RunCloner", "CopyRequest", "ClonerEvent", kStream},
        {"CopyService", "PreviewRun", "CopyRequest", "ClonerEvent", kStream},
        {"CopyService", "JoinRun", "JoinRunRequest", "ClonerEvent", kStream},
        {"CopyService", "CancelRun", "RunControlRequest", "RunControlResponse", kUnary},
        {"CopyService", "PauseRun", "RunControlRequest", "RunControlResponse", kUnary},
        {"CopyService", "ResumeRun", "RunControlRequest", "RunControlResponse", kUnary},
        {"CopyService", "ListActiveRuns", "ListActiveRunsRequest", "ListActiveRunsResponse", kUnary},
        {"CopyService", "StatImageDestination", "StatImageDestinationRequest", "StatImageDestinationResponse", kUnary},
        {"CopyService", "ProbeImageDestination", "ImageProbeRequest", "ClonerEvent", kStream},
        {"CopyService", "CreateImageDestination", "ImageCreateRequest", "ClonerEvent", kStream},
        {"CopyService", "GetPreviewStatus", "GetPreviewStatusRequest", "GetPreviewStatusResponse", kUnary},
        {"CopyService", "ListActivePreviews", "ListActivePreviewsRequest", "ListActivePreviewsResponse", kUnary},
        {"CopyService", "ListPreviewChildren", "ListPreviewChildrenRequest", "ListPreviewChildrenResponse", kUnary},
        {"CopyService", "ReportUnlockResult", "UnlockResultRequest", "UnlockResultResponse", kUnary},
        {"CopyService", "ProvideImagePassphrase", "ImagePassphraseRequest", "ImagePassphraseResponse", kUnary},
        {"CopyService", "ClaimPowerAction", "ClaimPowerActionRequest", "ClaimPowerActionResponse", kUnary},
        {"CopyService", "ClaimImagePassword", "ClaimImagePasswordRequest", "ClaimImagePasswordResponse", kUnary},

        {"DestinationService", "EraseVolume", "EraseVolumeRequest", "EraseVolumeResponse", kUnary},
        {"DestinationService", "SetVolumeOwnership", "SetVolumeOwnershipRequest", "SetVolumeOwnershipResponse", kUnary},
        {"DestinationService", "CopyCryptexesToDestination", "CopyCryptexesRequest", "CopyCryptexesResponse", kUnary},

        {"SourceService", "ListVolumes", "ListVolumesRequest", "ListVolumesResponse", kUnary},
        {"SourceService", "WatchVolumes", "WatchVolumesRequest", "VolumeEvent", kStream},
        {"SourceService", "GetVolumeInfo", "GetVolumeInfoRequest", "GetVolumeInfoResponse", kUnary},
        {"SourceService", "GetCurrentEventId", "GetCurrentEventIdRequest", "GetCurrentEventIdResponse", kUnary},
        {"SourceService", "CreateSnapshot", "CreateSnapshotRequest", "CreateSnapshotResponse", kUnary},
        {"SourceService", "MountSnapshot", "MountSnapshotRequest", "MountSnapshotResponse", kUnary},
        {"SourceService", "UnmountSnapshot", "UnmountSnapshotRequest", "UnmountSnapshotResponse", kUnary},
        {"SourceService", "DeleteLocalSnapshot", "DeleteLocalSnapshotRequest", "DeleteLocalSnapshotResponse", kUnary},
        {"SourceService", "EnumerateDirectory", "EnumerateDirectoryRequest", "EnumerateDirectoryResponse", kUnary},
        {"SourceService", "StatPath", "StatPathRequest", "StatPathResponse", kUnary},

        {"SystemService", "Ping", "PingRequest", "PingResponse", kUnary},
        {"SystemService", "Shutdown", "ShutdownRequest", "ShutdownResponse", kUnary},
        {"SystemService", "CollectGeneralDiagnostic", "CollectGeneralDiagnosticRequest",
         "CollectGeneralDiagnosticResponse", kUnary},

        {"TileService", "ListTiles", "ListTilesRequest", "ListTilesResponse", kUnary},
        {"TileService", "CreateTile", "CreateTileRequest", "CreateTileResponse", kUnary},
        {"TileService", "UpdateTile", "UpdateTileRequest", "UpdateTileResponse", kUnary},
        {"TileService", "DeleteTile", "DeleteTileRequest", "DeleteTileResponse", kUnary},
        {"TileService", "ReorderTiles", "ReorderTilesRequest", "ReorderTilesResponse", kUnary},
        {"TileService", "WatchTiles", "WatchTilesRequest", "TileEvent", kStream},

        {"LockService", "GetLockStatus", "LockStatusRequest", "LockStatusResponse", kUnary},
        {"LockService", "Unlock", "UnlockRequest", "UnlockResponse", kUnary},
        {"LockService", "Lock", "LockRequest", "LockResponse", kUnary},
        {"LockService", "AuthorizeCopy", "AuthorizeCopyRequest", "AuthorizeCopyResponse", kUnary},
    };
    return table;
}

const std::string kPackage = "ql4.transport.v1";

const ServiceDescriptor* service(const std::string& name) {
    const ServiceDescriptor* byShortName = ql::WireServices::find(name);
    EXPECT_EQ(byShortName, ql::WireServices::find(kPackage + "." + name));
    return byShortName;
}

TEST(ServiceCatalogue, TheCatalogueHasFortyThreeMethodsInSixServices) {
    std::set<std::string> services;
    for (const auto& m : catalogue()) services.insert(m.service);
    EXPECT_EQ(catalogue().size(), 43u);
    EXPECT_EQ(services.size(), 6u);
}

TEST(ServiceCatalogue, EveryCatalogueMethodHasItsTypesAndStreamingFlag) {
    for (const auto& expected : catalogue()) {
        SCOPED_TRACE(std::string(expected.service) + "/" + expected.method);
        const ServiceDescriptor* svc = service(expected.service);
        ASSERT_NE(svc, nullptr);
        const MethodDescriptor* method = svc->FindMethodByName(expected.method);
        ASSERT_NE(method, nullptr);
        EXPECT_EQ(method->input_type()->full_name(), kPackage + "." + expected.request);
        EXPECT_EQ(method->output_type()->full_name(), kPackage + "." + expected.response);
        EXPECT_EQ(method->server_streaming(), expected.serverStream);
        EXPECT_FALSE(method->client_streaming());
    }
}

TEST(ServiceCatalogue, ServicesCarryNoMethodsBeyondTheCatalogue) {
    std::map<std::string, std::set<std::string>> expected;
    for (const auto& m : catalogue()) expected[m.service].insert(m.method);

    for (const auto& [name, methods] : expected) {
        SCOPED_TRACE(name);
        const ServiceDescriptor* svc = service(name);
        ASSERT_NE(svc, nullptr);
        std::set<std::string> actual;
        for (int i = 0; i < svc->method_count(); ++i) actual.insert(svc->method(i)->name());
        EXPECT_EQ(actual, methods);
    }

    // The schema declares exactly these six services.
    std::set<std::string> declared;
    for (const ServiceDescriptor* svc : ql::WireServices::all()) declared.insert(svc->name());
    std::set<std::string> wanted;
    for (const auto& [name, methods] : expected) wanted.insert(name);
    EXPECT_EQ(declared, wanted);
}

TEST(ServiceCatalogue, MethodPathsAreBuiltFromPackageServiceAndMethod) {
    const ServiceDescriptor* svc = service("TileService");
    ASSERT_NE(svc, nullptr);
    EXPECT_EQ(ql::WireServices::methodPath(*svc->FindMethodByName("WatchTiles")),
              "/ql4.transport.v1.TileService/WatchTiles");
    EXPECT_EQ(ql::WireServices::find("NoSuchService"), nullptr);
}

}  // namespace
