#include "platform/host/host_config.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <system_error>

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
        throw std::filesystem::filesystem_error("cannot make directory", directory, std::error_code(errno, std::generic_category()));
    }
    return directory;
}

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view blanks = " \t\r";
    const auto first = text.find_first_not_of(blanks);
    return first == std::string_view::npos ? std::string_view{} : text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

} // namespace

std::filesystem::path state_dir() {
    return made_directory(from_environment("ULMO_STATE_DIR", "/var/lib/ulmo"), 0700);
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

std::vector<std::string> settings(std::string_view key) {
    std::vector<std::string> values;
    std::ifstream file(settings_file());
    for (std::string line; std::getline(file, line);) {
        const std::string_view text = trimmed(line);
        const auto equals = text.find('=');
        if (text.empty() || text.front() == '#' || equals == std::string_view::npos) {
            continue;
        }
        if (trimmed(text.substr(0, equals)) == key) {
            values.emplace_back(trimmed(text.substr(equals + 1)));
        }
    }
    return values;
}

std::string setting(std::string_view key, std::string_view fallback) {
    auto values = settings(key);
    return values.empty() ? std::string(fallback) : std::move(values.back());
}

} // namespace ulmo
