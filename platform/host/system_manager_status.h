// Status codes of the system manager on a Linux host, beside those of platform/system_manager.h.
#pragma once

#include <cstdint>

namespace ulmo {

inline constexpr std::uint32_t warden_err_bad_file = 0x401E0010; // the file is not there, can't be read, is too large or is no text
inline constexpr std::uint32_t warden_err_bad_line = 0x401E0011; // a line of it is no valid statement
inline constexpr std::uint32_t warden_err_store = 0x401E0012;    // the startup configuration could not be stored (disk, lock, settings)

} // namespace ulmo
