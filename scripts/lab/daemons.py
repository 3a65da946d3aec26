"""What runs in the lab: daemons, those of the file server, the notification receiver. The switches' own are in switch.py."""

import crypt
import os
import secrets
import signal
import string
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
HERE = Path(__file__).resolve().parent

USER = "netops"
COMMUNITY = "lab"

READY_WITHIN = 20  # seconds until a daemon must have answered
STOP_WITHIN = 10


class Failure(Exception):
    """The lab can't go on. Carries the daemon whose log tells why, where there is one."""

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
    """One process, its log, how to see that it works, and with which statuses it may end when it is told to."""

    def __init__(self, name, command, probe, cwd=LAB, environment=(), stdin=subprocess.DEVNULL, stdout=None, ends_with=(0, -signal.SIGTERM)):
        self.name, self.command, self.probe, self.cwd, self.stdin, self.stdout = name, command, probe, cwd, stdin, stdout
        self.ends_with = ends_with
        self.environment = {"PATH": os.environ["PATH"], "LC_ALL": "C.UTF-8", "MIBS": "", **dict(environment)}
        self.log = LOG / f"{name}.log"
        self.process = None
        self.wanted = False  # whether it has to run; its end is a failure then

    def spawn(self):
        self.cwd.mkdir(parents=True, exist_ok=True)
        with open(self.log, "ab") as log:
            self.process = subprocess.Popen(self.command, cwd=self.cwd, env=self.environment, stdin=self.stdin,
                                            stdout=log if self.stdout is None else self.stdout, stderr=log, start_new_session=True)

    def await_ready(self):
        if not poll(lambda: self.ended() or self.probe(), READY_WITHIN):
            raise Failure(f"{self.name} does not answer after {READY_WITHIN} seconds", self)
        if self.ended():
            raise Failure(f"{self.name} ended with status {self.process.returncode} while starting", self)
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
        """Ends it as an init system does. Anything but a clean end is a failure."""
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
            raise Failure(f"{self.name} did not end within {STOP_WITHIN} seconds of SIGTERM", self) from None
        if status not in self.ends_with:
            raise Failure(f"{self.name} ended with status {status} at SIGTERM", self)

    def kill(self):
        """Ends it as a crash does: without a last act."""
        self.wanted = False
        process, self.process = self.process, None
        if process is not None:
            process.kill()
            process.wait()


def succeeds(*words, within=5):
    try:
        return subprocess.run(words, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=within).returncode == 0
    except subprocess.TimeoutExpired:
        return False


def output_of(*words, within=5):
    try:
        return subprocess.run(words, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, timeout=within, text=True).stdout
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


class Account:
    """The account on the file server, in the lab's copies of the account files."""

    def __init__(self, home):
        self.password = "".join(secrets.choice(string.ascii_letters + string.digits) for _ in range(12))
        taken = {int(line.split(":")[2]) for line in Path("/etc/passwd").read_text().splitlines() if line.count(":") >= 6}
        self.id = next(number for number in range(20000, 60000) if number not in taken)
        self._append("/etc/passwd", f"{USER}:x:{self.id}:{self.id}:the lab's account:{home}:/bin/bash")
        self._append("/etc/group", f"{USER}:x:{self.id}:")
        self._append("/etc/shadow", f"{USER}:{crypt.crypt(self.password, crypt.mksalt(crypt.METHOD_SHA512))}:19000:0:99999:7:::")

    @staticmethod
    def _append(name, line):
        with open(name, "a") as file:
            file.write(line + "\n")


class FileServer:
    """The host that the copies go to and come from. Its daemons run in the namespace `server`."""

    def __init__(self, options, unpacked):
        self.options, self.unpacked = options, unpacked
        self.account = None

    def prepare(self):
        folder(SERVER_ROOT.parent)
        private_folder_of_size(SERVER_ROOT, self.options["server_disk"])
        self.account = Account(SERVER_ROOT)
        os.chown(SERVER_ROOT, self.account.id, self.account.id)

    def daemons(self):
        return self._tftp()

    def _tftp(self):
        daemons = []
        for version, address in ((4, network.SERVER4), (6, network.SERVER6)):
            if self.options["tftp_server"] == "atftpd":
                # On its own it listens on IPv4 only; handed a socket it serves either.
                command = [sys.executable, "-B", HERE / "on_socket.py", address, "69", USER, self.unpacked / "root-atftpd/usr/sbin/atftpd",
                           "--tftpd-timeout", "86400", "--logfile", "-", "--verbose=6", SERVER_ROOT]
            else:
                bracketed = f"[{address}]" if version == 6 else address
                command = [self.unpacked / "root-tftpd-hpa/usr/sbin/in.tftpd", "--foreground", "--verbose", "--user", USER, "--create",
                           f"--ipv{version}", "--address", f"{bracketed}:69", "--secure", SERVER_ROOT]
            daemons.append(Daemon(f"tftp-ipv{version}", network.on_server(*command), self._serves_file(address)))
        return daemons

    def _serves_file(self, address):
        """A real download works. From the switch, but for a link that loses frames, which says nothing about the server."""
        host = f"[{address}]" if ":" in address else address
        fetch = ("curl", "--silent", "--max-time", "0.5", f"tftp://{host}/.probe")
        if network.wants_relay(self.options):
            fetch = network.on_server(*fetch)

        def works():
            probe = SERVER_ROOT / ".probe"
            probe.write_text("ready\n")
            probe.chmod(0o644)
            try:
                return output_of(*fetch) == "ready\n"
            finally:
                probe.unlink()

        return works


class Receiver:
    """The stock notification receiver, and the filter that writes what it prints one line a notification."""

    # Between the bindings and at the end stand characters that no text can hold unquoted: the receiver prints a text with such as hexadecimal.
    # The line feed has it write each record out at once.
    format = "%y-%02.2m-%02.2l %02.2h:%02.2j:%02.2k\x1f%b\x1f%V\x1f%v\x1e\n"

    def __init__(self, unpacked):
        self.unpacked = unpacked

    def daemons(self):
        home = folder(LAB / "receiver", 0o700)
        (home / "snmptrapd.conf").write_text(f"authCommunity log {COMMUNITY}\n")
        (home / "snmp.conf").write_text("hexOutputLength 0\n")
        TRAPS.touch()
        reading, writing = os.pipe()
        lines = Daemon("trap-lines", [sys.executable, "-B", HERE / "trap_lines.py", TRAPS], lambda: True, stdin=reading)
        environment = {"SNMPCONFPATH": str(home), "SNMP_PERSISTENT_DIR": str(home / "persistent")}
        command = [self.unpacked / "root-snmptrapd/usr/sbin/snmptrapd", "-f", "-Lo", "-n", "-On", "-F", self.format, f"udp:{network.SERVER4}:162"]
        receiver = Daemon("snmptrapd", network.on_server(*command), self._notes, environment=environment, stdout=writing)
        return (lines, receiver), (reading, writing)

    @staticmethod
    def _notes():
        # coldStart (RFC 3418) from the receiver's own host; the agent's notifications come from the switch.
        succeeds(*network.on_server("snmptrap", "-v2c", "-c", COMMUNITY, network.SERVER4, "", ".1.3.6.1.6.3.1.1.5.1"))
        return poll(lambda: TRAPS.stat().st_size > 0, 1)
