#include "QLModel/ConfigStore.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>

namespace ql {

std::filesystem::path ConfigStore::defaultLocation() {
    std::filesystem::path home;
    if (const char* variable = std::getenv("HOME"); variable != nullptr && *variable != '\0') {
        home = variable;
    } else if (const passwd* entry = ::getpwuid(::getuid()); entry != nullptr && entry->pw_dir != nullptr) {
        home = entry->pw_dir;
    } else {
        home = "/";
    }
    return locationIn(xdgConfigHome(std::getenv("XDG_CONFIG_HOME"), home));
}

}  // namespace ql
