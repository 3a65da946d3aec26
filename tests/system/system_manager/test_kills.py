"""The startup configuration when the system manager is killed in the middle of a save: always the
whole old one or the whole new one."""

import ctypes
import os
import random
import shutil
import socket
import struct
import subprocess
import time
from pathlib import Path
from statistics import median

import pytest

# Magic, version, opcode, token, octets of payload: in the host's byte order.
HEADER = struct.Struct("=5I")
MAGIC, VERSION, TOKEN = 0x6D736762, 1, 1
SYSTEM_MANAGER = 3
ACTION, ENDED = 1381, 1361
INITIATED = 0x401E0003
PR_SET_CHILD_SUBREAPER = 36  # prctl(2)

WARDEND = Path(shutil.which("wardend") or "wardend").resolve()
COUNT_SYNC = WARDEND.parent.parent / "lib" / "count_sync.so"


class Switch:
    """A system manager with directories of its own, in addition to the lab's. Killed processes and
    their orphans are reaped here."""

    def __init__(self, home, **variables):
        self.state, self.run = home / "state", home / "run"
        self.state.mkdir(mode=0o700)
        self.run.mkdir()
        self.running, self.startup = self.state / "running.cfg", self.state / "system.cfg"
        self.log = open(home / "log", "w")
        self.environment = {
            **os.environ, "ULMO_STATE_DIR": str(self.state), "ULMO_RUN_DIR": str(self.run),
            "ULMO_CONF": str(home / "platform.conf"), **variables
        }
        self.process = None

    def start(self):
        self.process = subprocess.Popen([WARDEND], env=self.environment, stdin=subprocess.DEVNULL,
                                        stdout=self.log, stderr=self.log)

    def kill(self):
        """Kills it and waits until nothing of it is left: the process of an action ends shortly
        after its parent."""
        self.process.kill()
        self.process.wait()
        while True:
            try:
                os.waitpid(-1, 0)
            except ChildProcessError:
                return

    def ask(self, everything=False):
        """Sends the request for a save, and returns the connection once the request is answered."""
        payload = struct.pack(">IIBBBB", 26, 1, 0, 0, 1, 0).ljust(40, b"\0") + struct.pack(
            ">I", everything)
        payload = payload + b"tester".ljust(32, b"\0") + b"1".ljust(32, b"\0") + bytes(32)
        deadline = time.monotonic() + 10
        while True:
            connection = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
            connection.settimeout(10)
            try:
                connection.connect(str(self.run / "msgbus" / str(SYSTEM_MANAGER)))
                break
            except (FileNotFoundError, ConnectionRefusedError):
                connection.close()
                assert self.process.poll() is None, Path(self.log.name).read_text()
                assert time.monotonic() < deadline, "the system manager does not serve"
                time.sleep(0.0002)
        connection.send(HEADER.pack(MAGIC, VERSION, ACTION, TOKEN, len(payload)) + payload)
        assert self.status(connection, ACTION) == INITIATED
        return connection

    @staticmethod
    def status(connection, opcode):
        packet = connection.recv(65536)
        assert HEADER.unpack_from(packet)[2] == opcode
        return struct.unpack_from(">I", packet, HEADER.size)[0]

    def save(self, everything=False):
        """Makes a whole save. Returns how many seconds it took."""
        began = time.monotonic()
        with self.ask(everything) as connection:
            assert self.status(connection, ENDED) == 0
            return time.monotonic() - began

    def temporaries(self):
        return [path.name for path in self.state.iterdir() if path.suffix == ".new"]


def configuration(number):
    """A configuration of some 100 KB in canonical form, with the number at its beginning, in its
    middle and at its end."""
    vlans = "".join(f"vlan {vlan}\n  name {'n' * 20}-{number}\n" for vlan in range(1, 2401))
    return f"hostname switch{number}\n{vlans}snmp-server contact {number}\nend\n".encode()


@pytest.fixture
def orphans():
    """Makes orphans of the test's processes its own children."""
    libc = ctypes.CDLL(None, use_errno=True)
    assert libc.prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) == 0
    yield
    assert libc.prctl(PR_SET_CHILD_SUBREAPER, 0, 0, 0, 0) == 0


@pytest.fixture
def switch(tmp_path, orphans):
    made = []

    def make(**variables):
        made.append(Switch(tmp_path, **variables))
        return made[-1]

    yield make
    for one in made:
        if one.process and one.process.poll() is None:
            one.kill()
        one.log.close()


def test_a_thousand_kills(switch, tmp_path):
    began = time.monotonic()
    rounds, chance = 1000, random.Random(20260217)
    copies = [f"copy{number}.cfg" for number in range(6)]
    (tmp_path / "platform.conf").write_text("".join(f"startup_copy = {name}\n" for name in copies))
    switch = switch()
    files = {name: switch.state / name for name in [*copies, "system.cfg"]}
    assert len(configuration(0)) > 80_000
    switch.start()
    # Waits for the start of the switch, which replaces the running configuration.
    switch.save(everything=True)
    durations = {False: [], True: []}
    for number in range(1, 31):
        kept = configuration(-number)
        switch.running.write_bytes(kept)
        durations[number % 2 == 0].append(switch.save(everything=number % 2 == 0))
        assert switch.startup.read_bytes() == kept
    switch.kill()
    durations = {everything: median(values) for everything, values in durations.items()}
    # The longest time before a kill. It follows the speed of the machine, so that half of the saves
    # end before the kill.
    longest = dict(durations)

    old = {name: file.read_bytes() for name, file in files.items()}
    kept = replaced = interrupted = 0
    for number in range(1, rounds + 1):
        everything = number % 2 == 0
        new = configuration(number)
        switch.running.write_bytes(new)
        switch.start()
        with switch.ask(everything):
            time.sleep(chance.uniform(0, longest[everything]))
            switch.kill()
        found = {name: file.read_bytes() for name, file in files.items()}
        assert switch.running.read_bytes() == new
        for name in files:
            assert found[name] in (
                old[name], new
            ), f"round {number}, {name}: {len(found[name])} octets that are neither configuration"
        if found["system.cfg"] == new:
            replaced += 1
            whole = all(content == new for content in found.values())
            assert whole or not everything, f"round {number}: startup is not the last one"
        else:
            kept += 1
        longest[everything] *= 0.95 if found["system.cfg"] == new else 1.05
        interrupted += switch.temporaries() != []
        old = found
    took = time.monotonic() - began
    print(
        f"{rounds} kills in {took:.1f} s: {kept} old, {replaced} new, {interrupted} with temporary "
        f"files; a save takes {1000 * durations[False]:.1f} ms, "
        f"to all files {1000 * durations[True]:.1f} ms"
    )
    # Kills before, within and after.
    assert kept > rounds / 5, (kept, replaced, interrupted, durations)
    assert replaced > rounds / 5, (kept, replaced, interrupted, durations)
    assert interrupted > rounds / 50, (kept, replaced, interrupted, durations)
    assert took < 60

    # What the last kill left behind does no harm.
    switch.start()
    switch.save(everything=True)
    assert all(file.read_bytes() == new for file in [switch.running, *files.values()])
    assert switch.temporaries() == []


def written(log, state):
    """The calls in order, with paths relative to the state directory. Several writes to a file in a
    row appear as one."""
    calls = [
        line.replace(f"{state}/", "").replace(str(state), ".")
        for line in log.read_text().splitlines()
    ]
    return [
        call for call, before in zip(calls, [None, *calls])
        if not (call == before and call.startswith("write "))
    ]


def prepared(name):
    return [f"open {name}.new", f"write {name}.new", f"sync {name}.new"]


def committed(name):
    return [f"rename {name}.new {name}", "sync ."]


def test_nothing_is_renamed_before_it_is_on_the_disk(switch, tmp_path):
    """A power failure leaves only what was synced. So the new content must be synced before it gets
    its name, and the name before the end of the save is reported."""
    log = tmp_path / "calls"
    switch = switch(LD_PRELOAD=str(COUNT_SYNC), COUNT_SYNC_LOG=str(log),
                    COUNT_SYNC_ROOT=str(tmp_path / "state"))
    assert COUNT_SYNC.exists()
    switch.startup.write_bytes(configuration(1))
    switch.start()
    switch.save()
    starting = [
        "open configuration.lock", *prepared("running.cfg"),
        *committed("running.cfg")
    ]
    saving = ["open configuration.lock", *prepared("system.cfg"), *committed("system.cfg")]
    assert written(log, switch.state) == starting + saving

    log.unlink()
    switch.running.write_bytes(configuration(2))
    switch.save()
    assert written(log, switch.state) == saving

    log.unlink()
    switch.save(everything=True)
    assert written(log, switch.state) == [
        "open configuration.lock", *prepared("backup.cfg"), *prepared("system.cfg"),
        *committed("backup.cfg"), *committed("system.cfg")
    ]

    # A save that fails renames nothing.
    log.unlink()
    switch.running.write_bytes(b"bogus\n")
    with switch.ask() as connection:
        assert switch.status(connection, ENDED) != 0
    assert written(log, switch.state) == ["open configuration.lock"]
