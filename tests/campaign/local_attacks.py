"""What hostile users of the switch's own machine try. It prints whatever succeeds and, at the end,
the number of attempts.

The campaign hands this source to python3 as its input: the attackers may not enter the repository
if its folder is private. So it needs nothing but Python."""

import contextlib
import os
import random
import signal
import socket
import sys
import time
from pathlib import Path

VICTIM = Path("/lab/victim")
ATTACKER = 65533  # a user that runs nothing else
SECRET = os.environ["LAB_PASSWORD"].encode()
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
                elif path.is_file():
                    # What is there by now may be a pipe, or the attacker's own.
                    with open(os.open(path, os.O_RDONLY | os.O_NONBLOCK), "rb") as file:
                        if os.fstat(file.fileno()).st_uid != ATTACKER:
                            print("read", path, len(file.read()), flush=True)
        for entry in Path("/proc").glob("[0-9]*"):
            with contextlib.suppress(OSError):
                if SECRET in (entry / "environ").read_bytes() and (
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


if __name__ == "__main__":
    _, attack, seed, seconds = sys.argv
    signal.signal(signal.SIGTERM, lambda *_: os._exit(print(attempts, flush=True) or 0))
    print("ready", flush=True)
    ATTACKS[attack](random.Random(seed), time.monotonic() + float(seconds))
