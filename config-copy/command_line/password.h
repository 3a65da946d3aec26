// The password for the file server's account. It is never taken from an argument, which other users
// can see.
#pragma once

#include <optional>
#include <string>

namespace config_copy {

// The password is the first line of the file; or of standard input, if the file is "-" or if there
// is no file and standard input is not a terminal; or what the user types at the terminal, without
// echo. `is_input_taken`: standard input is used for something else. Throws a Failure of usage if
// no password is available or if it is longer than the switch accepts; Interrupted on Ctrl-C.
std::string read_password(const std::optional<std::string> &file, const std::string &account,
                          bool may_be_empty, bool is_input_taken);

} // namespace config_copy
