// Status codes of the system manager on a Linux host, in addition to those of
// platform/system_manager.h.
#pragma once

#include <cstdint>

namespace ulmo {

// the file does not exist, can't be read, is too large or is not text
inline constexpr std::uint32_t warden_err_bad_file = 0x401E0010;
// one of its lines is not a valid statement
inline constexpr std::uint32_t warden_err_bad_line = 0x401E0011;
// the startup configuration could not be stored (disk, lock, settings)
inline constexpr std::uint32_t warden_err_store = 0x401E0012;
// another configuration action is in progress
inline constexpr std::uint32_t warden_err_busy = 0x401E0013;
// not every switch of the fabric has saved
inline constexpr std::uint32_t warden_err_fabric = 0x401E0014;
// the request is malformed or unknown
inline constexpr std::uint32_t warden_err_request = 0x401E0015;
// given up: on request, or because the system manager ended
inline constexpr std::uint32_t warden_err_given_up = 0x401E0016;

} // namespace ulmo
