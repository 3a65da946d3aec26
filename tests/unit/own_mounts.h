// Mounts that no one else sees.
#pragma once

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

// Gives the calling thread mounts of its own: what it mounts from now on is seen by it alone and
// goes with it. The root may be a folder within a shared mount, as in a chroot, and cannot be made
// private then. So a copy of it goes on top of /proc, which is a mount point everywhere, and
// becomes the root.
inline bool get_own_mounts() {
    return ::unshare(CLONE_NEWNS) == 0 &&
           ::mount(nullptr, "/proc", nullptr, MS_PRIVATE, nullptr) == 0 &&
           ::mount("/", "/proc", nullptr, MS_BIND | MS_REC, nullptr) == 0 &&
           ::mount(nullptr, "/proc", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::chroot("/proc") == 0 && ::chdir("/") == 0;
}
