#include "QLProtocol/proto/WireServices.h"

#include "QLProtocol/proto/services.pb.h"

namespace ql {

const google::protobuf::FileDescriptor& WireServices::file() {
    // Naming the generated table references services.pb.cc, whose static registration puts the
    // file into the generated pool.
    const auto* file =
        google::protobuf::DescriptorPool::generated_pool()->FindFileByName(descriptor_table_services_2eproto.filename);
    return *file;
}

std::vector<const google::protobuf::ServiceDescriptor*> WireServices::all() {
    const auto& f = file();
    std::vector<const google::protobuf::ServiceDescriptor*> services;
    services.reserve(static_cast<std::size_t>(f.service_count()));
    for (int i = 0; i < f.service_count(); ++i) services.push_back(f.service(i));
    return services;
}

const google::protobuf::ServiceDescriptor* WireServices::find(std::string_view name) {
    const auto& f = file();
    for (int i = 0; i < f.service_count(); ++i) {
        const auto* service = f.service(i);
        if (service->name() == name || service->full_name() == name) return service;
    }
    return nullptr;
}

std::string WireServices::methodPath(const google::protobuf::MethodDescriptor& method) {
    return "/" + method.service()->full_name() + "/" + method.name();
}

}  // namespace ql
