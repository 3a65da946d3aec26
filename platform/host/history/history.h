// Where the debug history of the host lies.
#pragma once

#include <filesystem>

namespace ulmo {

// Where the history lies. Throws as run_dir() does.
std::filesystem::path history_file();

} // namespace ulmo
