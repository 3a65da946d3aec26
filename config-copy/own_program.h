// The programs that come with config-copy.
#pragma once

#include <string>
#include <string_view>

namespace config_copy {

// The program's path: next to this program where that was built, otherwise where it is installed.
std::string path_of_own_program(std::string_view name);

} // namespace config_copy
