"""The lab's daemons and its notification receiver. The switches' own daemons are in switch.py, the
file server's in file_server.py."""

import contextlib
import os
import signal
import subprocess
import sys
import time
from pathlib import Path

import network
import private_root

LAB = Path("/lab")
LOG = LAB / "log"
TRAPS = LAB / "traps"
SERVER_ROOT = LAB / "server" / "files"
# The path of the repository may contain blanks, which some daemons' settings do not allow, and a
# folder that only its owner may enter. Daemons are therefore given these paths instead.
UNPACKED, BUILD, SCRIPTS = LAB / "unpacked", LAB / "build", LAB / "scripts"

USER = "netops"
COMMUNITY = "lab"

READY_WITHIN = 20  # seconds within which a daemon must answer
STOP_WITHIN = 10


class Failure(Exception):
    """The lab can't go on. Carries the daemon whose log says why, if there is one."""

    def __init__(self, text, daemon=None):
        super().__init__(text)
        self.daemon = daemon


def poll(condition, within):
    deadline = time.monotonic() + within
    while not condition():
        if time.monotonic() > deadline:
            return False
        time.sleep(0.05)
    return True


class Daemon:
    """One process: its log, how to check that it works, and the exit statuses it may have after it
    was asked to end."""

    def __init__(self, name, command, probe, cwd=LAB, environment=(), stdin=subprocess.DEVNULL,
                 stdout=None, ends_with=(0, -signal.SIGTERM)):
        self.name, self.command, self.probe = name, command, probe
        self.cwd, self.stdin, self.stdout = cwd, stdin, stdout
        self.ends_with = ends_with
        self.environment = {
            "PATH": os.environ["PATH"], "LC_ALL": "C.UTF-8", "MIBS": "", **dict(environment)
        }
        self.log = LOG / f"{name}.log"
        self.process = None
        self.wanted = False  # whether it has to run; if it ends then, that is a failure

    def spawn(self):
        self.cwd.mkdir(parents=True, exist_ok=True)
        with open(self.log, "ab") as log:
            self.process = subprocess.Popen(self.command, cwd=self.cwd, env=self.environment,
                                            stdin=self.stdin,
                                            stdout=log if self.stdout is None else self.stdout,
                                            stderr=log, start_new_session=True)

    def await_ready(self):
        if not poll(lambda: self.ended() or self.probe(), READY_WITHIN):
            raise Failure(f"{self.name} does not answer after {READY_WITHIN} seconds", self)
        if self.ended():
            raise Failure(f"{self.name} ended with status {self.process.returncode} while starting",
                          self)
        self.wanted = True

    def ended(self):
        return self.process is None or self.process.poll() is not None

    def pid(self):
        if self.ended():
            raise Failure(f"{self.name} does not run")
        return self.process.pid

    def start(self):
        if self.ended():
            self.spawn()
            self.await_ready()

    def restart(self):
        self.stop()
        self.start()

    def reload(self):
        os.kill(self.pid(), signal.SIGHUP)
        self.await_ready()

    def stop(self):
        """Ends it as an init system does. Anything but a clean exit is a failure."""
        self.wanted = False
        process, self.process = self.process, None
        if process is None:
            return
        process.terminate()
        try:
            status = process.wait(STOP_WITHIN)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()
            raise Failure(f"{self.name} did not end within {STOP_WITHIN} seconds of SIGTERM",
                          self) from None
        if status not in self.ends_with:
            raise Failure(f"{self.name} ended with status {status} at SIGTERM", self)

    def kill(self):
        """Kills it, as a crash would."""
        self.wanted = False
        process, self.process = self.process, None
        if process is not None:
            process.kill()
            process.wait()

    def kill_family(self):
        """Kills it and all processes that it started."""
        self.wanted = False
        process, self.process = self.process, None
        if process is None:
            return
        family = [process.pid]
        for pid in family:  # grows during the loop
            with contextlib.suppress(FileNotFoundError, ProcessLookupError):
                os.kill(pid, signal.SIGSTOP)  # so that it starts no more processes
                family += map(int, Path(f"/proc/{pid}/task/{pid}/children").read_text().split())
        for pid in family:
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)
        process.wait()


def succeeds(*words, within=5):
    try:
        return subprocess.run(words, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL, timeout=within).returncode == 0
    except subprocess.TimeoutExpired:
        return False


def output_of(*words, within=5):
    try:
        return subprocess.run(words, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL, timeout=within, text=True).stdout
    except subprocess.TimeoutExpired:
        return ""


def folder(path, mode=0o755):
    path.mkdir(parents=True)
    path.chmod(mode)
    return path


def private_folder_of_size(path, limit, mode=0o755):
    folder(path, mode)
    if limit:
        private_root.mount("disk", path, "tmpfs", data=f"size={limit},mode={mode:o}")


class Receiver:
    """The stock notification receiver, with a filter that writes each notification as one line."""

    # Between the bindings and at the end are characters that no text can contain unquoted: the
    # receiver prints a text that contains them in hexadecimal. The line feed makes it write each
    # record immediately.
    format = "%y-%02.2m-%02.2l %02.2h:%02.2j:%02.2k\x1f%b\x1f%V\x1f%v\x1e\n"

    def daemons(self):
        home = folder(LAB / "receiver", 0o700)
        (home / "snmptrapd.conf").write_text(f"authCommunity log {COMMUNITY}\n")
        (home / "snmp.conf").write_text("hexOutputLength 0\n")
        TRAPS.touch()
        reading, writing = os.pipe()
        lines = Daemon("trap-lines", [sys.executable, "-B", SCRIPTS / "trap_lines.py", TRAPS],
                       lambda: True, stdin=reading)
        environment = {"SNMPCONFPATH": str(home), "SNMP_PERSISTENT_DIR": str(home / "persistent")}
        command = [
            UNPACKED / "root-snmptrapd/usr/sbin/snmptrapd", "-f", "-Lo", "-n", "-On", "-F",
            self.format, f"udp:{network.SERVER4}:162"
        ]
        receiver = Daemon("snmptrapd", network.on_server(*command), self._notes,
                          environment=environment, stdout=writing)
        return (lines, receiver), (reading, writing)

    @staticmethod
    def _notes():
        # A coldStart (RFC 3418) from the receiver's own host; the agent's notifications come from
        # the switch.
        succeeds(*network.on_server("snmptrap", "-v2c", "-c", COMMUNITY, network.SERVER4, "",
                                    ".1.3.6.1.6.3.1.1.5.1"))
        return poll(lambda: TRAPS.stat().st_size > 0, 1)


def system_log():
    """What the lab's processes send to the system's log, in LOG/system."""
    file = LOG / "system"
    return Daemon("system-log", [sys.executable, "-B", SCRIPTS / "system_log.py", file],
                  lambda: file.exists() and Path("/dev/log").exists())
