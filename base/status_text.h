// The platform's status codes in words, as platform/utilities.h has them in C.
#pragma once

#include <array>
#include <cstdint>

namespace ulmo {

using StatusBuffer = std::array<char, 128>;

// As syserr_format(), with the caller's buffer.
const char *text_with_code(std::uint32_t code, StatusBuffer &buffer);

} // namespace ulmo
