// The password of the file server's account. It never is an argument, which others see.
#pragma once

#include <optional>
#include <string>

namespace config_copy {

// The first line of the file, of standard input when the file is "-" or there is no file and
// standard input is no terminal, or what the user types at the terminal, without echo.
// `is_input_taken`: standard input holds something else. Throws a Failure of usage if no password
// is available, or it is longer than the switch accepts; Interrupted on Ctrl-C.
std::string read_password(const std::optional<std::string> &file, const std::string &account,
                          bool may_be_empty, bool is_input_taken);

} // namespace config_copy
