// The password of the file server's account. It never is an argument, which others see.
#pragma once

#include <optional>
#include <string>

namespace config_copy {

// The first line of the file, of standard input when the file is "-" or there is none and standard input is no terminal, or what the user
// types at the terminal, without echo. Throws a Failure of usage when there is none to be had or the switch takes none so long, Interrupted
// on Ctrl-C.
std::string read_password(const std::optional<std::string> &file, const std::string &account, bool may_be_empty);

} // namespace config_copy
