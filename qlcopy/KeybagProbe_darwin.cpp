#include "qlcopy/KeybagProbe.h"

#include <cerrno>

namespace ql {

// A data-protection class A file opened while the keybag is locked fails with EPERM.
bool KeybagProbe::isKeyAbsent(int error) { return error == EPERM; }

}  // namespace ql
