// Files of this machine as FROM or TO of a copy: read once as they are, or replaced whole.
#pragma once

#include "base/replaced_file.h"
#include "base/unique_fd.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace config_copy {

// As an argument: standard input as FROM, standard output as TO.
inline constexpr std::string_view standard_stream = "-";

// The largest file that is sent or taken: what the setting configuration_text_limit of a switch
// allows by default.
inline constexpr std::size_t largest_local_file = std::size_t{128} * 1024 * 1024;

// The first line that makes a switch replace its configuration instead of merging.
inline constexpr std::string_view replace_line = "configuration replace";

// An empty file in memory. Throws std::system_error.
ulmo::UniqueFd memory_file();

// A copy in memory of a file, or of standard input, so that all switches read the same. With
// `is_replacement` it begins with replace_line. Throws a Failure of usage if there is no such
// content, and Interrupted.
ulmo::UniqueFd snapshot(const std::string &path, bool is_replacement);

// A file that gets new content, or standard output. Until commit() nothing changes.
class LocalTarget {
  public:
    // Throws a Failure if the file could not be replaced.
    explicit LocalTarget(std::string path);

    // Where the new content is to be written; it belongs to this object.
    [[nodiscard]] int descriptor() const;

    // Puts the content in its place: the file is replaced in one step, and its mode is 0600. A file
    // that has this content already is left alone: then it returns false. Throws a Failure.
    bool commit();

  private:
    std::string path_;
    std::optional<ulmo::ReplacedFile> file_;
    ulmo::UniqueFd memory_; // for standard output
};

// The whole content of an open file, from its beginning. Throws std::system_error.
std::string content_of(int file);

} // namespace config_copy
