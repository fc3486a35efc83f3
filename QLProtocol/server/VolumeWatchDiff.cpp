#include "QLProtocol/server/VolumeWatchDiff.h"

#include <google/protobuf/util/message_differencer.h>

#include <map>

namespace ql {

namespace wire = ql4::transport::v1;

namespace {

std::string hex(const std::string& bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (unsigned char c : bytes) {
        out.push_back(digits[c >> 4]);
        out.push_back(digits[c & 15]);
    }
    return out;
}

bool sameApartFromSpace(const wire::VolumeSummary& a, const wire::VolumeSummary& b) {
    wire::VolumeSummary x = a;
    wire::VolumeSummary y = b;
    for (auto* s : {&x, &y}) {
        s->clear_used_bytes();
        s->clear_free_bytes();
    }
    return google::protobuf::util::MessageDifferencer::Equals(x, y);
}

}  // namespace

std::string VolumeWatchDiff::identity(const wire::VolumeSummary& volume) {
    if (!volume.volume_uuid().empty()) return "uuid:" + hex(volume.volume_uuid());
    if (!volume.network_url().empty()) return "url:" + volume.network_url();
    if (!volume.bsd_device().empty()) return "device:" + volume.bsd_device();
    return "mount:" + volume.mount_point();
}

std::vector<wire::VolumeEvent> VolumeWatchDiff::between(const std::vector<wire::VolumeSummary>& before,
                                                        const std::vector<wire::VolumeSummary>& after) {
    std::map<std::string, const wire::VolumeSummary*> old;
    for (const auto& v : before) old.emplace(identity(v), &v);
    std::map<std::string, const wire::VolumeSummary*> now;
    for (const auto& v : after) now.emplace(identity(v), &v);

    std::vector<wire::VolumeEvent> events;
    for (const auto& v : before) {
        if (now.count(identity(v))) continue;
        wire::VolumeEvent event;
        auto* gone = event.mutable_disappeared();
        gone->set_volume_uuid(v.volume_uuid());
        gone->set_partition_guid(v.partition_guid());
        gone->set_bsd_device(v.bsd_device());
        events.push_back(std::move(event));
    }
    for (const auto& v : after) {
        auto it = old.find(identity(v));
        if (it == old.end()) {
            wire::VolumeEvent event;
            *event.mutable_appeared() = v;
            events.push_back(std::move(event));
        } else if (!sameApartFromSpace(*it->second, v)) {
            wire::VolumeEvent event;
            *event.mutable_changed() = v;
            events.push_back(std::move(event));
        }
    }
    return events;
}

}  // namespace ql
