// The platform's status codes as text; platform/utilities.h declares the C interface.
#pragma once

#include <array>
#include <cstdint>

namespace ulmo {

using StatusBuffer = std::array<char, 128>;

// Like syserr_format(), with the caller's buffer.
const char *text_with_code(std::uint32_t code, StatusBuffer &buffer);

} // namespace ulmo
