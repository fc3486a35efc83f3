#include "QLModel/ConfigStore.h"

#include <pwd.h>
#include <sysdir.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <string>

namespace ql {
namespace {

std::filesystem::path homeDirectory() {
    if (const char* variable = std::getenv("HOME"); variable != nullptr && *variable != '\0') return variable;
    if (const passwd* entry = ::getpwuid(::getuid()); entry != nullptr && entry->pw_dir != nullptr) return entry->pw_dir;
    return "/";
}

}  // namespace

std::filesystem::path ConfigStore::defaultLocation() {
    // The first Application Support directory the platform reports for the user domain.
    char buffer[PATH_MAX] = {};
    auto state = sysdir_start_search_path_enumeration(SYSDIR_DIRECTORY_APPLICATION_SUPPORT, SYSDIR_DOMAIN_MASK_USER);
    if (sysdir_get_next_search_path_enumeration(state, buffer) != 0 && buffer[0] != '\0') {
        std::string reported(buffer);
        // User-domain paths come back with a leading "~".
        if (reported[0] == '~') return locationIn(homeDirectory() / reported.substr(reported.size() > 1 ? 2 : 1));
        return locationIn(reported);
    }
    return locationIn(homeDirectory() / "Library/Application Support");
}

}  // namespace ql
