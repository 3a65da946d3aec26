"""A root directory of the lab's own, made of the machine's folders and of private ones, in a mount
namespace of its own."""

import ctypes
import os
import subprocess
from pathlib import Path

# linux/mount.h
MS_NOSUID, MS_NODEV, MS_NOEXEC = 2, 4, 8
MS_BIND, MS_REC, MS_PRIVATE, MS_SLAVE = 1 << 12, 1 << 14, 1 << 18, 1 << 19

# Folders that the lab has for itself. All others are the machine's.
PRIVATE = ("/tmp", "/run", "/etc", "/var/tmp", "/var/log", "/var/lib/snmp", "/var/lib/ulmo", "/lab",
           "/ulmo", "/proc", "/sys", "/dev/log")

_libc = ctypes.CDLL(None, use_errno=True)


def mount(source, target, kind=None, flags=0, data=None):
    texts = [None if text is None else os.fsencode(text) for text in (source, target, kind, data)]
    if _libc.mount(texts[0], texts[1], texts[2], ctypes.c_ulong(flags), texts[3]) != 0:
        number = ctypes.get_errno()
        raise OSError(number, os.strerror(number), f"mount on {target}")


def _bind(source, target):
    """Shows `source` at `target`. Later mounts of the machine in it appear here too, but nothing
    that is mounted here appears there."""
    mount(source, target, flags=MS_BIND | MS_REC)
    mount(None, target, flags=MS_SLAVE | MS_REC)


def _show(source, target):
    """The machine's file, device, folder or link `source` under the name `target`."""
    if source.is_symlink():
        target.symlink_to(os.readlink(source))
    elif source.is_dir():
        target.mkdir()
        _bind(source, target)
    elif source.is_file() or source.is_char_device() or source.is_block_device():
        target.touch()
        _bind(source, target)


def _assemble(source, target):
    """The folder `source` with its content, except what is private in it."""
    for entry in sorted(source.iterdir()):
        place = target / entry.name
        if str(entry) in PRIVATE or str(entry) == "/dev/ptmx":
            continue
        if any(private.startswith(f"{entry}/") for private in PRIVATE) and not entry.is_symlink():
            place.mkdir()
            _assemble(entry, place)
        else:
            _show(entry, place)


def enter(visible, shown, added=()):
    """Enters the new root. The folders `visible` are visible even inside a private folder. `shown`
    lists the folders that have a second name as well, reachable for every user. The content of the
    folders `added`, by that name, is shown in /usr together with the machine's."""
    # Built on top of /proc: it is a mount point on every machine and in every chroot, and once it
    # is private nothing mounted there is visible outside. In a chroot whose root is only a folder
    # of a shared mount there is no other such place.
    top = Path("/proc")
    try:
        mount(None, top, flags=MS_PRIVATE)
    except OSError as error:
        raise OSError(error.errno, "/proc must be mounted") from error
    mount("lab", top, "tmpfs", data="mode=755")

    _assemble(Path("/"), top)
    for folder, mode in (("tmp", 0o1777), ("run", 0o755), ("var/tmp", 0o1777), ("var/log", 0o755),
                         ("etc", 0o755), ("proc", 0o755), ("sys", 0o755), ("lab", 0o755),
                         ("ulmo", 0o755), ("run/netns", 0o755), ("var/lib/snmp", 0o755)):
        (top / folder).mkdir(parents=True)
        (top / folder).chmod(mode)
    subprocess.run(["cp", "-a", "/etc/.", str(top / "etc")], check=True)
    mount("sysfs", top / "sys", "sysfs", MS_NOSUID | MS_NODEV | MS_NOEXEC)
    # The kernel looks for the terminals next to the device, and the machine's are no longer there.
    (top / "dev/ptmx").symlink_to("pts/ptmx")
    if (top / "dev/shm").is_dir():
        mount("shm", top / "dev/shm", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777")
    # A chroot may lack terminals, on which the transfer scripts run their clients.
    # With `added`, another user than root runs them.
    ptmx = top / "dev/pts/ptmx"
    if (top / "dev/pts").is_dir() and (
            not ptmx.exists() or (added and ptmx.stat().st_mode & 0o006 != 0o006)):
        mount("devpts", top / "dev/pts", "devpts", MS_NOSUID | MS_NOEXEC, "mode=620,ptmxmode=666")
    for path in sorted(visible):
        place = top / path.relative_to("/")
        if any(str(path).startswith(f"{private}/") for private in PRIVATE) and not place.exists():
            place.mkdir(parents=True)
            _bind(path, place)
    for place, folder in shown.items():
        place = top / place.relative_to("/")
        place.mkdir()
        _bind(folder, place)
    if added:
        layers = ":".join(str(top / folder.relative_to("/")) for folder in (*added, Path("/usr")))
        mount("usr", top / "usr", "overlay", data=f"lowerdir={layers}")
    mount("proc", top / "proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC)
    os.chroot(top)
    os.chdir("/")
