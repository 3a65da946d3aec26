// Replacing a file in one step.
#pragma once

#include "base/unique_fd.h"

#include <filesystem>
#include <string_view>

namespace ulmo {

// New content for the file `path`, mode 0600, kept in the same folder, mostly under a temporary
// name, until commit(). At any moment the file is the complete old one or the complete new one. All
// work is done as the folder's owner (base/ownership.h). Throws std::system_error.
class ReplacedFile {
  public:
    enum class Manner {
        lasting, // finish() and commit() return when their work is on the disk
        passing, // no wait for the disk: the content need not survive a power failure
        // Like passing, and others may replace the file at the same time; the content has no name
        // before commit(), so that a killed process leaves nothing.
        unlocked,
    };
    // For lasting and passing files, callers exclude each other with a lock. The temporary name is
    // then PATH.new, and a leftover of a killed process is removed. Unlocked files have one only
    // where the file system has no files without a name; it is a new name each time.
    explicit ReplacedFile(std::filesystem::path path, Manner manner = Manner::lasting);
    // The same with all of its content, finished.
    ReplacedFile(std::filesystem::path path, std::string_view content,
                 Manner manner = Manner::lasting);
    ReplacedFile(ReplacedFile &&) noexcept = default;
    ReplacedFile &operator=(ReplacedFile &&) = delete;
    ~ReplacedFile(); // removes the temporary file unless it was committed

    void append(std::string_view data);

    // To write or read the content in another way; it stays this object's. -1 once committed.
    [[nodiscard]] int descriptor() const { return file_.get(); }

    // Call once, after the last append().
    void finish();

    // Renames the temporary file to `path`. A link of that name is replaced, not followed.
    void commit();

    // Removes what a killed process may have left of a lasting or passing file, as the next one for
    // this path does. Call it under the lock.
    static void remove_leftover(const std::filesystem::path &path);

  private:
    std::filesystem::path path_;
    std::filesystem::path temporary_;
    Manner manner_;
    UniqueFd file_; // empty once committed
};

} // namespace ulmo
