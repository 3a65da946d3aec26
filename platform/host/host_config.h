// Where the host platform keeps things, and its settings.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace ulmo {

// State that outlives a restart: $ULMO_STATE_DIR, or /var/lib/ulmo. Made with mode 0700 when it is not there. Throws
// std::filesystem::filesystem_error.
std::filesystem::path state_dir();

// Sockets and shared memory of the running system: $ULMO_RUN_DIR, or /run/ulmo. Made with mode 0755 when it is not there. Throws as above.
std::filesystem::path run_dir();

// Its path alone: nothing is made.
std::filesystem::path run_path();

// The file of the settings: $ULMO_CONF, or /etc/ulmo/platform.conf.
std::filesystem::path settings_file();

// A setting of settings_file(): lines of `key = value`, blanks around both do not count, a line that begins
// with '#' is a comment. The file is read at each call, so that a change holds at once; a missing file is an empty one. A key that occurs
// several times has its last value in setting() and all of them, in order, in settings().
std::string setting(std::string_view key, std::string_view fallback);
std::vector<std::string> settings(std::string_view key);

} // namespace ulmo
