"""The command as a process, and agents of a test's own in addition to the lab's."""

import json
import os
import pty
import select
import shutil
import signal
import socket
import subprocess
import termios
import time
from pathlib import Path

from copy_numbers import COPY_ENTRY
from copy_table import AGENT, ROW_STATUS, SERVER4, STATE_DIRECTORY, agent_pid

DONE, FAILED, USAGE, REFUSED, UNREACHABLE, BUSY = range(6)
ANSWER, SET = 0xA2, 0xA3  # kinds of SNMP messages
QUICK = ("-t", "0.3", "-r", "1")  # for agents that do not answer


class Ended:
    def __init__(self, status, out, err):
        self.status, self.out, self.err = status, out, err

    def __repr__(self):
        return f"status {self.status}\n{self.out}{self.err}"

    def objects(self):
        return [json.loads(line) for line in self.out.splitlines()]


def config_copy(*words, stdin="", within=60, **settings):
    done = subprocess.run(["config-copy", *map(str, words)], input=stdin, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, text=True, timeout=within, **settings)
    return Ended(done.returncode, done.stdout, done.stderr)


def started(*words):
    return subprocess.Popen(["config-copy", *map(str, words)], stdin=subprocess.DEVNULL,
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)


def ended(process, within=30):
    out, err = process.communicate(timeout=within)
    return Ended(process.returncode, out, err)


def on_terminal(*words, answers=(), within=30):
    """Runs the command on a terminal that echoes, and types each answer when its prompt appears.
    Returns (exit status, all that was shown, whether the terminal echoed when each answer was typed
    and at the end)."""
    pid, terminal = pty.fork()
    if pid == 0:
        os.execvp("config-copy", ["config-copy", *map(str, words)])
    shown, echoes, answers, deadline = b"", [], list(answers), time.monotonic() + within

    def note_echo():
        echoes.append(bool(termios.tcgetattr(terminal)[3] & termios.ECHO))

    try:
        while True:
            assert time.monotonic() < deadline, shown
            if not select.select([terminal], [], [], 0.1)[0]:
                continue
            try:
                shown += os.read(terminal, 4096)
            except OSError:  # the other end is closed
                break
            if answers and answers[0][0].encode() in shown:
                note_echo()
                os.write(terminal, answers.pop(0)[1].encode())
        note_echo()
    finally:
        os.close(terminal)
    return os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]), shown.decode(), echoes


def through_relay(passes, *options, words=("running", f"tftp://{SERVER4}/lost.cfg")):
    """Runs the command through a relay to the agent. The relay carries the n-th packet of a kind if
    `passes(kind, n)` is true. Returns (how the command ended, the kinds of the carried packets)."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as near, socket.socket(
            socket.AF_INET, socket.SOCK_DGRAM) as far:
        near.bind(("127.0.0.1", 0))
        far.connect((AGENT, 161))
        counts, carried = {}, []
        process = started("-v2c", "-c", "lab", *options, f"127.0.0.1:{near.getsockname()[1]}",
                          *words)
        while process.poll() is None:
            for end in select.select([near, far], [], [], 0.05)[0]:
                if end is near:
                    packet, client = near.recvfrom(65535)
                else:
                    packet = far.recv(65535)
                kind = packet[packet.index(b"\x04\x03lab") + 5]  # after version and community
                counts[kind] = counts.get(kind, 0) + 1
                if passes(kind, counts[kind]):
                    carried.append(kind)
                    far.send(packet) if end is near else near.sendto(packet, client)
        return ended(process), carried


class Agent:
    """A stock agent with a switch's state of its own, on a port of the loopback."""

    def __init__(self, home, port, settings, with_module):
        self.name = f"127.0.0.1:{port}"
        self.home = Path(home)
        state, work = self.home / "state", self.home / "work"
        for path in (state, work, self.home / "run", self.home / "persistent"):
            path.mkdir(parents=True, mode=0o700)
        shutil.copy(STATE_DIRECTORY / "running.cfg", state)
        shutil.copy(STATE_DIRECTORY / "system.cfg", state)
        (self.home / "platform.conf").write_text("management_interface = lo\n")
        lines = [
            f"agentAddress udp:{self.name},tcp:{self.name}",
            f"exactEngineID 0x80001f8804{port:04x}746573", *settings
        ]
        if with_module:
            (module,) = [
                line for line in Path("/lab/switch1/agent/snmpd.conf").read_text().splitlines()
                if line.startswith("dlmod ")
            ]
            lines.append(module)
        (self.home / "snmpd.conf").write_text("\n".join(lines) + "\n")
        environment = {
            **os.environ, "SNMPCONFPATH": str(self.home),
            "SNMP_PERSISTENT_DIR": str(self.home / "persistent"), "ULMO_STATE_DIR": str(state),
            "ULMO_RUN_DIR": str(self.home / "run"), "ULMO_CONF": str(self.home / "platform.conf")
        }
        with open(self.home / "log", "wb") as log:
            self.process = subprocess.Popen([
                os.readlink(f"/proc/{agent_pid()}/exe"), "-f", "-Le", "-I",
                "-smux,mteTrigger,mteTriggerConf"
            ], cwd=work, env=environment, stdin=subprocess.DEVNULL, stdout=log, stderr=log)

    def answers(self):
        assert self.process.poll() is None, (self.home / "log").read_text()
        return subprocess.run(
            ["snmpget", "-v2c", "-c", "probe", "-r0", "-t0.5", self.name, ".1.3.6.1.2.1.1.3.0"],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL).returncode == 0

    def stop(self):
        self.process.terminate()
        self.process.wait(15)


def rows(manager):
    return [int(oid.rpartition(".")[2]) for oid, _ in manager.walk(f"{COPY_ENTRY}.{ROW_STATUS}")]


def freeze(pid):
    assert pid > 1
    os.kill(pid, signal.SIGSTOP)


def thaw(pid):
    assert pid > 1
    os.kill(pid, signal.SIGCONT)
