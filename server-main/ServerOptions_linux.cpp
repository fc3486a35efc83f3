#include "server-main/ServerOptions.h"

namespace ql {

std::filesystem::path ServerOptions::currentExecutable() {
    std::error_code ec;
    auto self = std::filesystem::read_symlink("/proc/self/exe", ec);
    return ec ? std::filesystem::path() : self;
}

}  // namespace ql
