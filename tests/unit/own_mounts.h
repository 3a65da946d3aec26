// Mounts that no other process sees.
#pragma once

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

// Gives the calling thread mounts of its own: only this thread sees its later mounts, and they end
// with it. In a chroot the root may be a folder within a shared mount, which can't be made private.
// So a copy of the root is mounted on /proc, a mount point everywhere, and becomes the root.
inline bool get_own_mounts() {
    return ::unshare(CLONE_NEWNS) == 0 &&
           ::mount(nullptr, "/proc", nullptr, MS_PRIVATE, nullptr) == 0 &&
           ::mount("/", "/proc", nullptr, MS_BIND | MS_REC, nullptr) == 0 &&
           ::mount(nullptr, "/proc", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::chroot("/proc") == 0 && ::chdir("/") == 0;
}
