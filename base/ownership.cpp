#include "base/ownership.h"

#include <sys/fsuid.h>
#include <sys/stat.h>
#include <unistd.h>

namespace ulmo {
namespace {

// setfsuid(2) and setfsgid(2) return the current id when given an invalid one.
constexpr uid_t no_user = static_cast<uid_t>(-1);
constexpr gid_t no_group = static_cast<gid_t>(-1);

} // namespace

ActingAsOwner::ActingAsOwner(const std::filesystem::path &folder) noexcept
    : former_user_(static_cast<uid_t>(::setfsuid(no_user))),
      former_group_(static_cast<gid_t>(::setfsgid(no_group))) {
    struct stat owned {};
    if (former_user_ == 0 && ::stat(folder.c_str(), &owned) == 0 && owned.st_uid != 0) {
        ::setfsgid(owned.st_gid);
        ::setfsuid(owned.st_uid);
    }
}

ActingAsOwner::~ActingAsOwner() {
    ::setfsuid(former_user_);
    ::setfsgid(former_group_);
}

std::optional<uid_t> owner_of(const std::filesystem::path &folder) noexcept {
    struct stat owned {};
    return ::stat(folder.c_str(), &owned) == 0 ? std::optional(owned.st_uid) : std::nullopt;
}

} // namespace ulmo
