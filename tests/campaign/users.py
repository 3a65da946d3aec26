#!/usr/bin/python3
"""Hostile users of the switch's own machine, while copies and saves go on.

As a user without any rights they fill the bus's sockets, send to them, plant files and links in
/tmp, read what they can and signal every process. Each copy and save succeeds truly all the same;
nothing private can be read, and nothing is written through a link."""

import contextlib
import os
import signal
import socket
import subprocess
import sys
import time
from pathlib import Path

from campaign import Campaign  # first: it sets the path

import copy_table as ct
import invariants
import jobs
import saves
from protocols import PROTOCOLS
from snmp import FastManager

VICTIM = Path("/lab/victim")
ATTACKER = 65533  # a user that runs nothing else
PRIVATE = (Path("/lab/switch1/disk/state"), Path("/lab/switch1/run"))
POINTS = [Path(os.environ["ULMO_RUN_DIR"]) / "msgbus" / point for point in ("3", "28")]
# Files that the switch's programs write in /tmp, and what else may be guessed.
NAMES = ("configcopy.txt", *(f"cfg_snmp_debug.log.{pid}" for pid in range(1, 3000)))


attempts = 0


def attempted():
    global attempts
    attempts += 1


def flood(chance, deadline):
    """Connections that are kept, and messages of no meaning."""
    kept = []
    while time.monotonic() < deadline:
        for point in POINTS:
            connection = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET | socket.SOCK_NONBLOCK)
            attempted()
            with contextlib.suppress(OSError):
                connection.connect(str(point))
                print("connected to", point, flush=True)
                connection.send(chance.randbytes(100))
            kept = [*kept[-200:], connection]


def plant(chance, deadline):
    while time.monotonic() < deadline:
        path = Path("/tmp") / chance.choice((NAMES[0], chance.choice(NAMES)))
        attempted()
        with contextlib.suppress(OSError):
            match chance.randrange(4):
                case 0:
                    path.symlink_to(VICTIM)
                case 1:
                    os.link(VICTIM, path)
                case 2:
                    os.mkfifo(path)
                case 3:
                    path.write_text("planted\n")
        if chance.random() < 0.5:
            with contextlib.suppress(OSError):
                path.unlink()


def read(chance, deadline):
    """Whatever can be read of the switch's own."""
    while time.monotonic() < deadline:
        places = [PRIVATE[0] / "running.cfg", PRIVATE[0] / "system.cfg", PRIVATE[0] / "work",
                  PRIVATE[1] / "history.log", *Path("/tmp").glob("*"), *POINTS]
        for path in places:
            attempted()
            with contextlib.suppress(OSError):
                if path.is_dir():
                    print("listed", path, os.listdir(path), flush=True)
                elif path.is_file() and path.stat().st_uid != ATTACKER:
                    print("read", path, len(path.read_bytes()), flush=True)
        for entry in Path("/proc").glob("[0-9]*"):
            with contextlib.suppress(OSError):
                if ct.SECRET.encode() in (entry / "environ").read_bytes() and (
                        entry.stat().st_uid != ATTACKER):
                    print("environment of", entry, flush=True)


def kill(chance, deadline):
    while time.monotonic() < deadline:
        for entry in Path("/proc").glob("[0-9]*"):
            with contextlib.suppress(OSError):
                if entry.stat().st_uid != ATTACKER:
                    attempted()
                    os.kill(int(entry.name), chance.choice((signal.SIGKILL, signal.SIGSTOP)))
                    print("signalled", entry.name, flush=True)


ATTACKS = {"flood": flood, "plant": plant, "read": read, "kill": kill}


@contextlib.contextmanager
def attackers(campaign, seconds):
    """One process for each attack. What one of them could do, it has printed."""
    processes = {
        name: subprocess.Popen(
            ["setpriv", "--reuid", str(ATTACKER), "--regid", str(ATTACKER), "--clear-groups",
             "/usr/bin/python3", "-B", __file__, "--attack", name, str(campaign.round),
             str(seconds)], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.PIPE, text=True)
        for name in ATTACKS
    }
    for process in processes.values():
        assert process.stdout.readline() == "ready\n", process.stderr.read()
    try:
        yield
    finally:
        for process in processes.values():
            process.terminate()
        output = {name: process.communicate() for name, process in processes.items()}
    for name, (done, error) in output.items():
        assert not error, f"{name}: {error[-1000:]}"
        *succeeded, attempts = done.splitlines()
        assert not succeeded, f"{name}: {succeeded[:10]}"
        assert int(attempts) > 0, f"{name} has tried nothing"
        campaign.figures[f"{name} attempts"] += int(attempts)


def body(campaign):
    manager = FastManager()
    VICTIM.write_text("untouched\n")
    VICTIM.chmod(0o600)
    leftovers = None
    for chance in campaign.rounds():
        with attackers(campaign, 60):
            for name, protocol in PROTOCOLS.items():
                kind = chance.choice((jobs.Upload, jobs.Download))
                campaign.doing = f"{kind.__name__} by {name}"
                kind(manager, chance, 100_000, protocol).succeeds()
                campaign.figures["copies"] += 1
            for destination in saves.SAVES:
                campaign.doing = f"save to {destination}"
                jobs.Save(manager, chance, 1, destination).succeeds()
                campaign.figures["saves"] += 1
            invariants.comes_to_rest(manager)
        assert VICTIM.read_text() == "untouched\n", "written through a link"
        for path in Path("/tmp").iterdir():
            path.unlink()
        leftovers = leftovers or invariants.Leftovers()
        leftovers.none()
    invariants.password_is_nowhere(ct.SECRET)


if sys.argv[1:2] == ["--attack"]:
    import random

    signal.signal(signal.SIGTERM, lambda *_: os._exit(print(attempts, flush=True) or 0))
    print("ready", flush=True)
    ATTACKS[sys.argv[2]](random.Random(sys.argv[3]), time.monotonic() + float(sys.argv[4]))
else:
    campaign = Campaign(__doc__)
    campaign.run(body)
