// Files of the state directory: read and replaced as a whole, under a lock between processes.
#pragma once

#include "base/unique_fd.h"

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ulmo {

// A lock on the file `path`, which is created (mode 0600) if missing. Held until the object is
// destroyed or the process ends. Waits at most `wait` for other holders; a waiting writer is not
// overtaken by later readers. Throws std::system_error, with ETIMEDOUT if the lock was not free in
// time.
class FileLock {
  public:
    enum class Mode { shared, exclusive };
    FileLock(const std::filesystem::path &path, Mode mode, std::chrono::milliseconds wait);
    FileLock(FileLock &&) noexcept = default;
    FileLock &operator=(FileLock &&) = delete;
    ~FileLock();

    // The descriptors of this process's locks. A lock is held as long as any process has its
    // descriptor open.
    static std::vector<int> held();

  private:
    UniqueFd file_;
};

// Whether a FileLock in exclusive mode on that file is held now; no file is not locked. Throws
// std::system_error.
bool is_locked(const std::filesystem::path &path);

// Opens a regular file of at most `limit` octets for reading, without following a link. Empty if
// there is no such file. Throws as read_state_file().
UniqueFd open_state_file(const std::filesystem::path &path, std::size_t limit);

// The content of a regular file of at most `limit` octets; a link is not followed. Empty if there
// is no such file. Throws std::system_error: EFBIG for a larger file, EINVAL for one that is not
// regular.
std::optional<std::string> read_state_file(const std::filesystem::path &path, std::size_t limit);

// Replaces the content of the file `path` with `data` in one step.
void replace_state_file(const std::filesystem::path &path, std::string_view data);

// The same for a file of the run directory. That directory does not survive a reboot, so this does
// not wait for the disk.
void replace_volatile_file(const std::filesystem::path &path, std::string_view data);

} // namespace ulmo
