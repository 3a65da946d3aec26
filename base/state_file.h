// Files of the state directory: read whole, replaced whole, under a lock between processes.
#pragma once

#include "base/unique_fd.h"

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace ulmo {

// A lock on the file `path`, which is made (mode 0600) when it is not there; held until the object,
// or the process, ends. Waits at most `wait` for other holders; who waits for the exclusive lock is
// not overtaken by later shared ones. Throws std::system_error, ETIMEDOUT when the lock was not to
// be had.
class FileLock {
  public:
    enum class Mode { shared, exclusive };
    FileLock(const std::filesystem::path &path, Mode mode, std::chrono::milliseconds wait);

  private:
    UniqueFd file_;
};

// A regular file of at most `limit` octets, open for reading; no link is followed to it. Nothing
// when there is no such file. Throws as below.
UniqueFd open_state_file(const std::filesystem::path &path, std::size_t limit);

// The content of a regular file of at most `limit` octets; no link is followed to it. Nothing when
// there is no such file. Throws std::system_error, EFBIG for a larger file and EINVAL for one that
// is not regular.
std::optional<std::string> read_state_file(const std::filesystem::path &path, std::size_t limit);

// Makes `data` the content of the file `path` in one step.
void replace_state_file(const std::filesystem::path &path, std::string_view data);

// The same for a file of the run directory, which goes when the machine does: without a wait for
// the disk.
void replace_volatile_file(const std::filesystem::path &path, std::string_view data);

} // namespace ulmo
