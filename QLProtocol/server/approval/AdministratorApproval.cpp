#include "QLProtocol/server/approval/AdministratorApproval.h"

#ifndef QL_APP_IDENTIFIER
#error "QL_APP_IDENTIFIER must be defined by the build (the application's reverse-DNS identifier)"
#endif

namespace ql {

std::string_view describe(ApprovalVerdict::Kind kind) {
    switch (kind) {
        case ApprovalVerdict::Kind::approved:
            return "approved";
        case ApprovalVerdict::Kind::denied:
            return "denied";
        case ApprovalVerdict::Kind::unavailable:
            return "unavailable";
    }
    return "unknown";
}

std::string copyAsAdministratorAction() { return QL_APP_IDENTIFIER ".copy-as-administrator"; }

}  // namespace ql
