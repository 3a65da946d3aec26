// The debug history of this process as host code uses it.
#pragma once

#include <cstdint>
#include <filesystem>

namespace ulmo {

// Where the history lies. Throws as run_dir() does.
std::filesystem::path history_file();

// The host platform's own module id in the history.
inline constexpr std::uint32_t host_module_id = 0x00010000;

// Records an error of the host platform, in the words of printf(3). Keeps errno.
void history_error(const char *format, ...) noexcept __attribute__((format(printf, 1, 2)));

} // namespace ulmo
