// The debug history: a log file, and the one before it. Any number of processes append to it at the
// same time; none waits for another, no record is lost among them, and none is cut by another.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

namespace ulmo {

// The file in the run directory, and the name that it gets when it has reached its limit.
std::filesystem::path history_file();
std::filesystem::path older_history_file();

// A record as it stands in the file: UTC time, process id, `error`, `debug` or the number of the
// subtype, and the text. Of the text, what is not printable ASCII is written as \n, \r, \t or \xNN,
// a backslash as \\; line ends at its end are left out, and so is what exceeds 544 octets.
std::string history_line(std::uint32_t subtype, std::string_view text);

// Appends the line with one write(2). A file of `limit` octets or more is renamed first, in place
// of the former older one. The file belongs to the caller or to the owner of the run directory,
// mode 0600: anything else under its name is replaced, and a link refused. Throws std::system_error
// and std::filesystem::filesystem_error; the line is then not recorded, not even a part of it.
void append_to_history(std::string_view line, std::size_t limit);

} // namespace ulmo
