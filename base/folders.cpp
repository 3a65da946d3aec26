#include "base/folders.h"

#include "base/posix.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <string>

namespace ulmo {
namespace {

std::string from_environment(const char *name, const char *fallback) {
    const char *value = std::getenv(name);
    return value != nullptr && *value != '\0' ? value : fallback;
}

std::filesystem::path made_directory(const std::filesystem::path &directory, mode_t mode) {
    if (!directory.parent_path().empty()) {
        std::filesystem::create_directories(directory.parent_path());
    }
    if (::mkdir(directory.c_str(), mode) != 0 && errno != EEXIST) {
        throw_errno("cannot make the directory", directory.native());
    }
    return directory;
}

} // namespace

std::filesystem::path state_dir() {
    return made_directory(state_path(), 0700);
}

std::filesystem::path state_path() {
    return from_environment("ULMO_STATE_DIR", "/var/lib/ulmo");
}

std::filesystem::path run_dir() {
    return made_directory(run_path(), 0755);
}

std::filesystem::path run_path() {
    return from_environment("ULMO_RUN_DIR", "/run/ulmo");
}

std::filesystem::path settings_file() {
    return from_environment("ULMO_CONF", "/etc/ulmo/platform.conf");
}

} // namespace ulmo
