// Making untrusted text safe to print.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace ulmo {

// The length in octets of the printable character at the start of the text: well-formed UTF-8 (RFC
// 3629, 4) that is not a control character. 0 if the text does not start with one.
std::size_t printable_length(std::string_view text);

// The text as one line of at most `longest` octets that is safe for terminals and logs. Line ends
// and tabs become blanks; any other octet that is not part of a printable character becomes '?'.
std::string one_line(std::string_view text, std::size_t longest = std::string_view::npos);

// The octets in hexadecimal, separated by `between`.
std::string in_hex(std::string_view octets, std::string_view between = {});

// The text without leading and trailing blanks, tabs and line ends.
std::string_view trimmed(std::string_view text);

} // namespace ulmo
