"""What runs in the lab: the switch's agent and the notification receiver. The file server's daemons are in file_server.py."""

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
HERE = Path(__file__).resolve().parent

USER = "netops"
COMMUNITY = "lab"
OPERATOR = "operator"  # the SNMPv3 user
AUTHENTICATION, PRIVACY = "lab-authentication", "lab-privacy-key"

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
    """One process, its log, and how to see that it works."""

    def __init__(self, name, command, probe, cwd=LAB, environment=(), stdin=subprocess.DEVNULL, stdout=None):
        self.name, self.command, self.probe, self.cwd, self.stdin, self.stdout = name, command, probe, cwd, stdin, stdout
        self.environment = {"PATH": os.environ["PATH"], "LC_ALL": "C.UTF-8", "MIBS": "", **dict(environment)}
        self.log = LOG / f"{name}.log"
        self.process = None

    def start(self):
        self.cwd.mkdir(parents=True, exist_ok=True)
        with open(self.log, "ab") as log:
            self.process = subprocess.Popen(self.command, cwd=self.cwd, env=self.environment, stdin=self.stdin,
                                            stdout=log if self.stdout is None else self.stdout, stderr=log, start_new_session=True)

    def await_ready(self):
        if not poll(lambda: self.ended() or self.probe(), READY_WITHIN):
            raise Failure(f"{self.name} does not answer after {READY_WITHIN} seconds", self)
        if self.ended():
            raise Failure(f"{self.name} ended with status {self.process.returncode} while starting", self)

    def ended(self):
        return self.process is None or self.process.poll() is not None

    def stop(self):
        """Ends it as an init system does. Anything but a clean end is a failure."""
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
        if status not in (0, -signal.SIGTERM):
            raise Failure(f"{self.name} ended with status {status} at SIGTERM", self)

    def kill(self):
        """Ends it and all that it started, as a crash does."""
        process, self.process = self.process, None
        if process is None:
            return
        family = [process.pid]
        for pid in family:  # grows while it is walked
            with contextlib.suppress(FileNotFoundError, ProcessLookupError):
                os.kill(pid, signal.SIGSTOP)  # starts no more
                family += map(int, Path(f"/proc/{pid}/task/{pid}/children").read_text().split())
        for pid in family:
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)
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


class Switch:
    """A switch: its configuration, its directories and its agent."""

    device = "mgmt0"

    def __init__(self, options, number=1):
        self.options, self.number = options, number
        self.address4, self.address6 = network.switch_addresses(number)
        self.home = LAB / f"switch{number}"
        self.disk = self.home / "disk"
        self.state = self.disk / "state"
        self.work = self.disk / "work"
        self.clock = self.home / "clock"
        self.build = Path(options["build_dir"])

    def environment(self):
        return {"ULMO_STATE_DIR": str(self.state), "ULMO_RUN_DIR": str(self.home / "run"), "ULMO_CONF": str(self.home / "platform.conf")}

    def prepare(self):
        private_folder_of_size(self.disk, self.options["small_disk"])
        folder(self.state, 0o700)
        folder(self.work)
        folder(self.home / "run")
        folder(self.home / "agent", 0o700)
        settings = [f"management_interface = {self.device}"]
        if self.options["chassis_type"] is not None:
            settings.append(f"chassis_type = {self.options['chassis_type']}")
        (self.home / "platform.conf").write_text("\n".join(settings) + "\n")
        self.clock.write_text(f"{self.options['faketime'] or '+0'}\n")
        self._prepare_agent()

    def seed(self):
        """Gives the switch a configuration that looks like one, through its own command line."""
        text = LAB / "first.cfg"
        text.write_text(FIRST_CONFIGURATION.format(address=self.address4))
        for command in (f"configure {text}", "copy running-config startup-config"):
            done = subprocess.run(["/ulmo/bin/cmdshell", "-c", command], env={**os.environ, **self.environment()}, stdin=subprocess.DEVNULL,
                                  stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
            if done.returncode != 0:
                raise Failure(f"cmdshell -c '{command}' failed: {done.stdout}")

    def _prepare_agent(self):
        greeting = self.home / "greeting"
        greeting.write_text("#!/bin/sh\necho hello from $$\n")
        greeting.chmod(0o755)
        lines = [
            "# An engine id that stays, so that receivers and tests may name it.",
            f"exactEngineID 0x80001f8804{self.number:02x}6c6162",
            f"agentAddress udp:{self.address4}:161",
            f"createUser {OPERATOR} SHA-256 {AUTHENTICATION} AES {PRIVACY}",
            f"rwuser {OPERATOR} authPriv",
            f"rwcommunity {COMMUNITY}",
            "dontLogTCPWrappersConnects yes",
            f"trap2sink {network.SERVER4}:162 {COMMUNITY}",
            f"sysName lab-switch{self.number}",
            "sysLocation the lab",
            "sysContact nobody",
            f"extend -cacheTime 1 greeting {greeting}",
        ]
        if not self.options["no_module"]:
            lines.append(f"dlmod config_copy_mib {self.module()}")
        (self.home / "agent" / "snmpd.conf").write_text("\n".join(lines) + "\n")

    def module(self):
        return self.build / "lib" / "config_copy_mib.so"

    def agent(self, unpacked):
        environment = {"SNMPCONFPATH": str(self.home / "agent"), "SNMP_PERSISTENT_DIR": str(self.home / "agent-persistent"), **self.environment()}
        if self.options["faketime"]:
            library = next(Path("/usr/lib").glob("*/faketime/libfaketime.so.1"))
            environment |= {"LD_PRELOAD": str(library), "FAKETIME_TIMESTAMP_FILE": str(self.clock), "FAKETIME_NO_CACHE": "1"}
        command = [unpacked / "root-snmpd/usr/sbin/snmpd", "-f", "-Le", "-I", "-smux,mteTrigger,mteTriggerConf"]
        return Daemon(f"snmpd{self.number}", command, self._agent_answers, cwd=self.work, environment=environment)

    def _agent_answers(self):
        once = ("-r0", "-t1", "-On", "-Oqv", self.address4)
        if not succeeds("snmpget", *once, ".1.3.6.1.2.1.1.3.0"):
            return False
        # The agent only logs a module that it can't load; its table of modules tells (dlmodStatus 1: loaded).
        return self.options["no_module"] or output_of("snmpwalk", *once, ".1.3.6.1.4.1.2021.13.14.2.1.5").strip() == "1"


FIRST_CONFIGURATION = """\
hostname lab-switch
!
interface mgmt0
 description management
 ip address {address}/24
"""


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
