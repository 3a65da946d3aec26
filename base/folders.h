// Room: what all our programs share: system calls, texts, settings, files, processes, addresses.
// Used by: tftp, receiver, copy_client, history, bus, vrf, device, fabric, transfer,
//          system_manager, agent, programs.
// May use: platform.
//
// The directories and files of the host platform.
#pragma once

#include <filesystem>

namespace ulmo {

// State that survives a restart: $ULMO_STATE_DIR, or /var/lib/ulmo. Created with mode 0700 if
// missing. Throws std::system_error.
std::filesystem::path state_dir();

// The path of state_dir(), without creating it.
std::filesystem::path state_path();

// Sockets and records of the running system: $ULMO_RUN_DIR, or /run/ulmo. Created with mode 0755 if
// missing. Throws std::system_error.
std::filesystem::path run_dir();

// The path of run_dir(), without creating it.
std::filesystem::path run_path();

// The settings file: $ULMO_CONF, or /etc/ulmo/platform.conf.
std::filesystem::path settings_file();

} // namespace ulmo
