// Texts that come from elsewhere.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace ulmo {

// Octets of the printable character at the beginning of the text: well-formed UTF-8 (RFC 3629, 4)
// and no control character. 0 when there is none.
std::size_t printable_length(std::string_view text);

// The text as one line that a terminal and a log can take, of at most `longest` octets. Line ends
// and tabs become blanks; any other octet that is no part of a printable character becomes '?'.
std::string one_line(std::string_view text, std::size_t longest = std::string_view::npos);

// The octets in hexadecimal, with `between` between them.
std::string in_hex(std::string_view octets, std::string_view between = {});

// Without the blanks, tabs and line ends at its ends.
std::string_view trimmed(std::string_view text);

} // namespace ulmo
