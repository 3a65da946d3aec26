#include "platform/host/ownership.h"

#include "platform/host/unique_fd.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace ulmo {
namespace {

void check(int result, const std::filesystem::path &path) {
    if (result != 0) {
        throw std::system_error(errno, std::generic_category(), "owner of " + path.string());
    }
}

struct stat folder_around(const std::filesystem::path &path) {
    struct stat folder {};
    check(::stat(path.parent_path().c_str(), &folder), path);
    return folder;
}

} // namespace

uid_t owner_around(const std::filesystem::path &path) {
    return folder_around(path).st_uid;
}

void give_to_owner_around(const std::filesystem::path &path, int descriptor) {
    if (::geteuid() != 0) {
        return;
    }
    struct stat status {};
    check(::fstatat(descriptor, "", &status, AT_EMPTY_PATH), path);
    // The folder's owner could have put another name of somebody's file there, to have it given to him.
    const bool single = S_ISREG(status.st_mode) ? status.st_nlink == 1 : S_ISDIR(status.st_mode) || S_ISSOCK(status.st_mode);
    const struct stat folder = folder_around(path);
    if (single && status.st_uid == 0 && folder.st_uid != 0) {
        check(::fchownat(descriptor, "", folder.st_uid, folder.st_gid, AT_EMPTY_PATH), path);
    }
}

void give_to_owner_around(const std::filesystem::path &path) {
    if (::geteuid() == 0) {
        const UniqueFd place(::open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        check(place ? 0 : -1, path);
        give_to_owner_around(path, place.get());
    }
}

} // namespace ulmo
