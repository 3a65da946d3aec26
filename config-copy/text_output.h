// Texts for people, with a live line on a terminal.
#pragma once

#include "config-copy/output.h"

namespace config_copy {

std::unique_ptr<Output> text_output(bool is_quiet, bool has_live_line);

// Parts of the implementation.

std::string summary_of(const std::vector<Outcome> &outcomes);
std::vector<std::string> table_lines(const std::vector<std::string> &headings,
                                     const std::vector<std::vector<std::string>> &rows);

} // namespace config_copy
