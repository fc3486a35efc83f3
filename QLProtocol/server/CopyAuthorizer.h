#pragma once

#include "QLProtocol/proto/runs.pb.h"

#include <asio.hpp>

namespace ql {

// Decides whether a requested copy may run: the server's lock and the request's one-time
// `auth_token`. A refused copy is never queued.
class CopyAuthorizer {
public:
    virtual ~CopyAuthorizer() = default;
    virtual asio::awaitable<bool> authorizes(ql4::transport::v1::CopyRequest request) = 0;
};

// Allows every copy: the server has no lock yet.
class NoOpCopyAuthorizer final : public CopyAuthorizer {
public:
    asio::awaitable<bool> authorizes(ql4::transport::v1::CopyRequest) override { co_return true; }
};

}  // namespace ql
