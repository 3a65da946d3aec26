// Working on files as the owner of their folder.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>

namespace ulmo {

// While the object exists, a superuser's thread acts on files as the owner of `folder`
// (setfsuid(2)). Nothing changes for other users, when the superuser owns the folder, or when the
// folder does not exist. The agent is the superuser only while it loads its modules, and
// administrators run cmdshell as the superuser. Neither may leave files that the other can't open,
// nor follow links that the owner has planted to places where the owner has no rights. Objects of
// one thread may be nested.
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

// The owner of the folder; empty if it does not exist.
std::optional<uid_t> owner_of(const std::filesystem::path &folder) noexcept;

} // namespace ulmo
