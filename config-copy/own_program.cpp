#include "config-copy/own_program.h"

#include <filesystem>
#include <system_error>

namespace config_copy {

std::string path_of_own_program(std::string_view name) {
    std::error_code error;
    const auto built = std::filesystem::read_symlink("/proc/self/exe", error).parent_path() / name;
    return std::filesystem::exists(built, error) ? built.string()
                                                 : CONFIG_COPY_LIBEXECDIR "/" + std::string(name);
}

} // namespace config_copy
