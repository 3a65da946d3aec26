// A file that is replaced in one step.
#pragma once

#include "base/unique_fd.h"

#include <filesystem>
#include <string_view>

namespace ulmo {

// A new content of the file `path`, mode 0600, under another name in the same folder until
// commit(): whatever happens, the file is the whole old one or the whole new one. All is done as
// the folder's owner (base/ownership.h). Throws std::system_error.
class ReplacedFile {
  public:
    enum class Manner {
        lasting,  // finish() and commit() wait until what they did is on the disk
        passing,  // nobody waits for the disk: for what need not outlive a failure of the power
        unlocked, // the same, and others may replace the file at the same time
    };
    // But for unlocked ones, callers exclude each other with a lock: then the other name is
    // PATH.new, and what a killed process left there is removed. Otherwise it is a name that nobody
    // has.
    explicit ReplacedFile(std::filesystem::path path, Manner manner = Manner::lasting);
    // With all of its content, finished.
    ReplacedFile(std::filesystem::path path, std::string_view content,
                 Manner manner = Manner::lasting);
    ReplacedFile(ReplacedFile &&) noexcept = default;
    ReplacedFile &operator=(ReplacedFile &&) = delete;
    ~ReplacedFile(); // removes what was not committed

    void append(std::string_view data);

    // Once, when all is appended.
    void finish();

    // Gives the new content the file's name. A link in its place is replaced, not followed.
    void commit();

  private:
    std::filesystem::path path_;
    std::filesystem::path temporary_;
    Manner manner_;
    UniqueFd file_; // holds nothing once committed
};

} // namespace ulmo
