#pragma once

#include <google/protobuf/descriptor.h>

#include <string>
#include <string_view>
#include <vector>

namespace ql {

// The six services of the wire schema as descriptors: the authoritative method table for
// stubs, server adapters and routing. Going through this type also keeps the schema file that
// declares the services linked into the program (it has no messages of its own, so nothing
// else would pull it out of the static library).
struct WireServices {
    static constexpr std::string_view package = "ql4.transport.v1";

    // The schema file that declares the services.
    static const google::protobuf::FileDescriptor& file();

    // Every service, in declaration order.
    static std::vector<const google::protobuf::ServiceDescriptor*> all();

    // A service by its short ("TileService") or full ("ql4.transport.v1.TileService") name;
    // null when the schema has no such service.
    static const google::protobuf::ServiceDescriptor* find(std::string_view name);

    // "/" + service full name + "/" + method name.
    static std::string methodPath(const google::protobuf::MethodDescriptor& method);
};

}  // namespace ql
