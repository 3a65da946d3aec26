// What the shells' completions know about the options.
#pragma once

#include <string>
#include <string_view>

namespace config_copy {

// For `bash`, `zsh` or `fish`: a text in the shell's language, to which the functions in
// completion.SHELL belong. For `profiles`: the names of the profiles. Throws a Failure of usage.
std::string completion(std::string_view what);

} // namespace config_copy
