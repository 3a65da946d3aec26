// Room: what all our programs share: system calls, texts, settings, files, processes, addresses.
// Used by: tftp, copy_client, history, bus, vrf, device, fabric, transfer, system_manager, agent,
//          programs.
// May use: platform.
//
// Where the host platform keeps things.
#pragma once

#include <filesystem>

namespace ulmo {

// State that outlives a restart: $ULMO_STATE_DIR, or /var/lib/ulmo. Made with mode 0700 when it is
// not there. Throws std::system_error.
std::filesystem::path state_dir();

// Sockets and records of the running system: $ULMO_RUN_DIR, or /run/ulmo. Made with mode 0755 when
// it is not there. Throws as above.
std::filesystem::path run_dir();

// Its path alone: nothing is made.
std::filesystem::path run_path();

// The file of the settings: $ULMO_CONF, or /etc/ulmo/platform.conf.
std::filesystem::path settings_file();

} // namespace ulmo
