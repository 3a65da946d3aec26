"""What holds whatever happens to a switch. Each function raises AssertionError when it does not."""

import contextlib
import os
import re
import signal
import time
from pathlib import Path

import copy_table as ct
from protocols import Switch, family

STATE_COLUMN = f"{ct.COPY_ENTRY}.{ct.STATE}"
# What stays for good: the debug history's older half, what the shell printed last, and the outcome
# of the last save in the fabric.
LASTING = ("history.log.1", "configcopy.txt", "fabric-status")
# The programs of a copy or save. None is left when it has ended.
PROGRAMS = ("cmdshell", "brix-tftp", "vrf-exec", "expect", "ftp", "sftp", "scp", "ssh")


_pids = {}


def pid_of(daemon, number=1):
    """Of an `agent` or a `system-manager`. lab-ctl is asked only when there is a new one: it takes
    as long as a copy."""
    if ct.process_state(_pids.get((daemon, number), 0)) in (None, "Z"):
        _pids[daemon, number] = int(ct.lab_ctl(f"{daemon}-pid", number))
    return _pids[daemon, number]


def killed(daemon, number=1):
    """Kills it now, not only when lab-ctl has begun to run. A system manager's save is a child that
    dies with it or cleans up: it does so from this moment. What an agent leaves behind goes on."""
    pids = [pid_of(daemon, number)]
    if daemon == "system-manager":
        pids = family(pids[0])
    signal_all(signal.SIGSTOP, pids)
    ct.lab_ctl(f"kill-{daemon}", number)
    signal_all(signal.SIGCONT, pids[1:])


def signal_all(number, pids):
    """Returns how many there were."""
    sent = 0
    for pid in pids:
        with contextlib.suppress(ProcessLookupError):
            os.kill(pid, number)
            sent += 1
    return sent


def descendants(pid):
    return family(pid)[1:]


def names_of(pids):
    names = []
    for pid in pids:
        try:
            names.append(Path(f"/proc/{pid}/comm").read_text().strip())
        except OSError:
            pass
    return names


def programs_left():
    """The processes of copies that nobody waits for any more: their parent is the lab itself."""
    found = []
    for entry in Path("/proc").glob("[0-9]*"):
        try:
            name, _, numbers = (entry / "stat").read_text().partition(" (")[2].rpartition(") ")
        except OSError:
            continue
        if name in PROGRAMS and numbers.split()[1] == "1":
            found.append(f"{name} {entry.name}")
    return found


def running_rows(manager):
    return [name for name, state in manager.walk(STATE_COLUMN) if state == ct.STATE_RUNNING]


def no_row_without_work(manager, number=1, within=2):
    """No row runs without a worker of the agent or a save of the system manager. An outcome on
    its way is given a moment."""
    deadline = time.monotonic() + within
    while (rows := running_rows(manager)) and not any(
            descendants(pid_of(daemon, number)) for daemon in ("agent", "system-manager")):
        assert time.monotonic() < deadline, f"nothing works at {rows}, which run"
        time.sleep(0.05)


def comes_to_rest(manager, number=1, within=15):
    """Every row ends, and every process of a copy with it."""
    deadline = time.monotonic() + within
    while (rows := running_rows(manager)) or (busy := descendants(pid_of("agent", number))):
        if time.monotonic() > deadline:
            assert not rows, f"stuck rows: {rows}"
            raise AssertionError(f"processes stay: {names_of(busy)}")
        time.sleep(0.01)


class Leftovers:
    """Nothing stays of what has ended: no file, no process, no descriptor of the daemons."""

    def __init__(self, number=1):
        self.number, self.switch = number, Switch(number)
        self.before = self.files()

    def files(self):
        places = (Path("/tmp"), self.switch.state, self.switch.state.parent / "work",
                  self.switch.state.parent.parent / "run")
        return {str(path) for place in places for path in place.rglob("*")}

    def none(self, within=3):
        """Gives what ends by itself a moment."""
        deadline = time.monotonic() + within
        while left := self.left():
            assert time.monotonic() < deadline, f"left over: {left}"
            time.sleep(0.02)

    def left(self):
        files = {file for file in self.files() - self.before if Path(file).name not in LASTING}
        return [*sorted(files), *programs_left()]


def descriptors(pid):
    return len(os.listdir(f"/proc/{pid}/fd"))


def password_is_nowhere(password, number=1):
    """Of the places that hold one by design, the agent's log and the debug history are left
    out."""
    secret = password.encode()
    files = [path for place in (ct.LOGS, Path("/tmp"), Switch(number).state,
                                Switch(number).state.parent.parent / "run")
             for path in place.rglob("*") if path.is_file()]
    found = [str(path) for path in files
             if not re.match(r"snmpd\d+\.log|history\.log", path.name)
             and secret in path.read_bytes()]
    for entry in Path("/proc").glob("[0-9]*"):
        try:
            if secret in (entry / "cmdline").read_bytes() and entry.name != str(os.getpid()):
                found.append((entry / "cmdline").read_bytes().replace(b"\0", b" ").decode())
        except OSError:
            pass
    assert not found, f"the password is in {found}"


def is_whole(content, *allowed):
    assert content in allowed, f"{len(content)} octets that are none of the configurations"
