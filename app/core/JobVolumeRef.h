#pragma once

#include "QLProtocol/proto/identity.pb.h"
#include "QLProtocol/proto/tiles.pb.h"

#include <tl/expected.hpp>

#include <string>

namespace ql {

// The volume reference a run request carries for one side of a stored job: its durable key
// (by the binding's kind: a disk image, a network share, a GPT partition, an MBR or APM slice,
// a whole-disk volume), the part of the volume meant, the facts recorded when the server bound
// it, and the folder inside it. A binding the server has not completed yet (no key it can be
// found by) is an error with a sentence.
struct JobVolumeRef {
    static tl::expected<ql4::transport::v1::VolumeRef, std::string> fromBinding(
        const ql4::transport::v1::VolumeBinding& binding);
};

}  // namespace ql
