#!/bin/sh
# own-mounts.sh COMMAND…: runs COMMAND with mounts of its own, which nothing else sees and which end
# with it.
#
# The root may be a folder within a shared mount, as in a chroot, which cannot be made private. So a
# copy of it is mounted on top of /proc, which is a mount point everywhere, and becomes the root.
# shellcheck disable=SC2016 # for the inner shell to expand
exec unshare --mount --propagation unchanged sh -c '
    mount --make-private /proc && mount --rbind / /proc && mount --make-rprivate /proc &&
        exec unshare --root=/proc --wd="$PWD" -- "$@"' sh "$@"
