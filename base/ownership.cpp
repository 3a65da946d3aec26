#include "base/ownership.h"

#include <sys/fsuid.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>

namespace ulmo {
namespace {

// setfsuid(2) and setfsgid(2) return the current id when given an invalid one.
constexpr uid_t no_user = static_cast<uid_t>(-1);
constexpr gid_t no_group = static_cast<gid_t>(-1);

// A process that dies with its parent goes on to do so: the kernel forgets it with a change of the
// user (prctl(2), PR_SET_PDEATHSIG).
void act_as(uid_t user, gid_t group) {
    int at_death = 0;
    ::prctl(PR_GET_PDEATHSIG, &at_death);
    const pid_t parent = ::getppid();
    ::setfsgid(group);
    ::setfsuid(user);
    if (at_death != 0) {
        ::prctl(PR_SET_PDEATHSIG, at_death);
        if (::getppid() != parent) { // it died meanwhile
            ::raise(at_death);
        }
    }
}

} // namespace

ActingAsOwner::ActingAsOwner(const std::filesystem::path &folder) noexcept
    : former_user_(static_cast<uid_t>(::setfsuid(no_user))),
      former_group_(static_cast<gid_t>(::setfsgid(no_group))) {
    struct stat owned {};
    if (former_user_ == 0 && ::stat(folder.c_str(), &owned) == 0 && owned.st_uid != 0) {
        act_as(owned.st_uid, owned.st_gid);
    }
}

ActingAsOwner::~ActingAsOwner() {
    act_as(former_user_, former_group_);
}

std::optional<uid_t> owner_of(const std::filesystem::path &folder) noexcept {
    struct stat owned {};
    return ::stat(folder.c_str(), &owned) == 0 ? std::optional(owned.st_uid) : std::nullopt;
}

} // namespace ulmo
