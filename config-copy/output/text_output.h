// Texts for people, with a live line on a terminal.
#pragma once

#include "config-copy/output/output.h"

namespace config_copy {

std::unique_ptr<Output> text_output(const Style &style, bool has_live_line);

// Parts of the implementation.

std::string summary_of(const std::vector<Outcome> &outcomes, bool is_diff = false);

// A unified difference in colours for a terminal.
std::string coloured(const std::string &difference);
std::vector<std::string> table_lines(const std::vector<std::string> &headings,
                                     const std::vector<std::vector<std::string>> &rows);

} // namespace config_copy
