"""Saves through the system manager, in addition to copy_table.py: starts a save, holds it up, and
shows its effects."""

import contextlib
import fcntl
import os
import struct

from copy_numbers import ERROR_ENTRY
from copy_table import (
    ALL_STARTUP, DESTINATION, FABRIC_STARTUP, LOGS, NOTIFY, RUNNING, SOURCE, STARTUP,
    STATE_DIRECTORY, TRUE, Request, lab_ctl,
)

SYSTEM_MANAGER_REFUSED, SYSTEM_MANAGER_FAILED = 8, 9
DEVICE_ADDRESS_TYPE, DEVICE_ADDRESS, SWITCH_WWN, ERROR_TEXT = range(2, 6)
SAVES = (STARTUP, FABRIC_STARTUP, ALL_STARTUP)
DAEMON_LOG = LOGS / "wardend1.log"


def save(manager, destination=STARTUP, notify=TRUE, **index):
    """A request, not yet active."""
    return Request(manager, **index).create((SOURCE, RUNNING), (DESTINATION, destination),
                                            (NOTIFY, notify))


def startup(state=STATE_DIRECTORY):
    return (state / "system.cfg").read_bytes()


def running(state=STATE_DIRECTORY):
    return (state / "running.cfg").read_bytes()


def change_times():
    file = STATE_DIRECTORY / "change-times"
    return {int(kind): int(when)
            for kind, when in map(str.split,
                                  file.read_text().splitlines())} if file.exists() else {}


@contextlib.contextmanager
def busy_device(state=STATE_DIRECTORY):
    """Keeps the device busy within the block, so that a save waits."""
    file = os.open(state / "configuration.lock", os.O_RDWR)
    try:
        # struct flock of fcntl(2): a write lock on everything.
        fcntl.fcntl(file, fcntl.F_OFD_SETLKW,
                    struct.pack("hhqqi", fcntl.F_WRLCK, os.SEEK_SET, 0, 0, 0))
        yield
    finally:
        os.close(file)


@contextlib.contextmanager
def damaged_running_configuration(state=STATE_DIRECTORY):
    file = state / "running.cfg"
    whole = file.read_bytes()
    file.write_bytes(b"no such statement\n")
    try:
        yield
    finally:
        file.write_bytes(whole)


@contextlib.contextmanager
def full_disk(state):
    """Fills the disk of the directory."""
    filler = state / "filler"
    with open(filler, "wb", buffering=0) as file:
        with contextlib.suppress(OSError):
            while file.write(bytes(4096)):
                pass
    try:
        assert os.statvfs(state).f_bavail == 0
        yield
    finally:
        filler.unlink()


def system_manager_pid(number=1):
    return int(lab_ctl("system-manager-pid", number))


def logged(text):
    """How often the system manager has logged the text."""
    return DAEMON_LOG.read_text().count(text)


def error_rows(manager, index=None):
    """The rows of the error table in the order of a walk: ((index, error), (address type, address,
    WWN, text))."""
    columns = {}
    for oid, value in manager.walk(ERROR_ENTRY):
        column, *key = map(int, oid.removeprefix(f"{ERROR_ENTRY}.").split("."))
        columns.setdefault(tuple(key), {})[column] = value
    return [(key, tuple(row.get(column) for column in range(DEVICE_ADDRESS_TYPE, ERROR_TEXT + 1)))
            for key, row in columns.items() if index in (None, key[0])]


def outcomes(manager, request):
    """The text in the error table for each switch, by the last octet of the switch's name."""
    return {row[2][-1]: row[3].decode() for _, row in error_rows(manager, request.index)}
