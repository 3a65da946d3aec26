// How alike two words are, to guess what a misspelt one means.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace config_copy {

// The Levenshtein distance: how many letters must be changed, inserted or removed to turn one word
// into the other. Ignores case, and takes '_' and '-' as equal.
std::size_t distance(std::string_view a, std::string_view b);

// The word that is most like this one; empty if they differ by more than two letters, or by all.
std::string nearest(std::string_view word, const std::vector<std::string> &known);

} // namespace config_copy
