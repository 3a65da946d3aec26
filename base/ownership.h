// As whom the platform works in its folders.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>

namespace ulmo {

// As long as the object is there, what a thread of the superuser does with files it does as the
// owner of `folder`, setfsuid(2); for other users, where the superuser is the owner, and where
// there is no such folder, nothing changes. The agent is the superuser while it loads its modules
// and somebody else afterwards, and administrators use cmdshell as they are: neither may leave
// behind what the other can't open, nor follow what the owner has put there to a place where the
// owner could do nothing. Objects of one thread may be nested.
class ActingAsOwner {
  public:
    explicit ActingAsOwner(const std::filesystem::path &folder) noexcept;
    ActingAsOwner(const ActingAsOwner &) = delete;
    ActingAsOwner &operator=(const ActingAsOwner &) = delete;
    ~ActingAsOwner();

  private:
    uid_t former_user_;
    gid_t former_group_;
};

// The owner of the folder; nothing when there is none.
std::optional<uid_t> owner_of(const std::filesystem::path &folder) noexcept;

} // namespace ulmo
