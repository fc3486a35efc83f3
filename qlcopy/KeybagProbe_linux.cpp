#include "qlcopy/KeybagProbe.h"

#include <cerrno>

namespace ql {

// fscrypt reports a file whose key was removed with ENOKEY.
bool KeybagProbe::isKeyAbsent(int error) { return error == ENOKEY; }

}  // namespace ql
