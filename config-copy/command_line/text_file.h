// Text files that the user writes for us, and the words in their lines.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace config_copy {

struct TextFile {
    std::string text;
    bool is_readable_by_others = false; // by the group or by everybody
};

// Reads the file, or standard input for "-". Throws std::system_error, and Interrupted.
TextFile read_text_file(const std::string &name);

// The words of a line, separated by blanks and quoted as for a shell, which expands nothing in
// them. A '#' at the beginning of a word begins a comment. Throws a Failure of usage.
std::vector<std::string> words_of(std::string_view line);

// The word as words_of() reads it back.
std::string quoted(const std::string &word);

// Letters, digits, dots, hyphens and underscores, the first of them no dot and no hyphen: a name
// that is safe in a file's name.
bool is_plain_name(std::string_view name);

} // namespace config_copy
