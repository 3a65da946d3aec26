#!/bin/sh
# own-mounts.sh COMMAND…: runs COMMAND with mounts of its own. What it mounts is seen by it alone and goes with it.
#
# The root may be a folder within a shared mount, as in a chroot, and cannot be made private then. So a copy of it
# goes on top of /proc, which is a mount point everywhere, and becomes the root.
# shellcheck disable=SC2016 # for the inner shell to expand
exec unshare --mount --propagation unchanged sh -c '
    mount --make-private /proc && mount --rbind / /proc && mount --make-rprivate /proc &&
        exec unshare --root=/proc --wd="$PWD" -- "$@"' sh "$@"
