// The debug history: a log file and its predecessor. Any number of processes append to it at the
// same time; they do not wait for each other, and no record is lost or torn.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

namespace ulmo {

// The file in the run directory, and the name it is renamed to when it reaches its limit.
std::filesystem::path history_file();
std::filesystem::path older_history_file();

// Formats a record: UTC time, process id, `error`, `debug` or the number of the subtype, and the
// text. In the text, characters that are not printable ASCII are written as \n, \r, \t or \xNN and
// a backslash as \\. Trailing newlines are dropped, and the text is cut at 544 octets.
std::string history_line(std::uint32_t subtype, std::string_view text);

// Appends the line with one write(2). A file of `limit` octets or more is renamed first, replacing
// the previous older file. The file belongs to the caller or to the owner of the run directory and
// has mode 0600; anything else under its name is replaced, and a symbolic link is refused. Throws
// std::system_error and std::filesystem::filesystem_error; nothing of the line is recorded then.
void append_to_history(std::string_view line, std::size_t limit);

} // namespace ulmo
