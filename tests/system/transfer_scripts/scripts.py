"""The three transfer scripts as functions, and what the tests do to the servers and the link."""

import contextlib
import os
import re
import subprocess
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

from copy_table import SERVER4, SERVER_ROOT, STATE_DIRECTORY, run
from shadow import hashed

DONE, UNREACHABLE, NAME, SPACE, LOGIN, HOST_KEY, LOST, USE, OTHER, SIZE = range(10)
ACCOUNT, SECRET = os.environ.get("LAB_USER", ""), os.environ.get("LAB_PASSWORD", "")
SETTINGS = Path(os.environ.get("ULMO_CONF", "/nonexistent"))
KNOWN_HOSTS = STATE_DIRECTORY / "ssh_known_hosts"
# A second address of the server's host, where a test may listen on ports 21 and 22.
OTHER_HOST = "192.0.2.30"
NO_ROUTE = "198.51.100.1"
FOREVER = 40


class Script:
    """One protocol: its program and the order of its arguments."""

    def __init__(self, program):
        self.program = program

    def words(self, action, local, remote, server=None, user=None, password=None, vrf=None):
        server = server or SERVER4
        user = ACCOUNT if user is None else user
        password = SECRET if password is None else password
        first, second = (local, remote) if action == "put" else (remote, local)
        if self.program == "snmp.ftp.expect":
            words = [server, first, second, user, password, action]
        elif self.program == "sftp.expect":
            words = [server, user, password, action, first, second]
        else:
            there = os.fsencode(f"{user}@{server}:") + os.fsencode(remote)
            words = [local, there, password] if action == "put" else [there, local, password]
        return [f"/ulmo/bin/{self.program}", *words, *([] if vrf is None else [str(vrf)])]

    def start(self, *arguments, environment=(), **more):
        return Running(self.words(*arguments, **more), environment)

    def put(self, local, remote, **more):
        return self.start("put", local, remote, **more).result()

    def get(self, remote, local, **more):
        return self.start("get", local, remote, **more).result()


class Running:
    def __init__(self, words, environment=()):
        self.words = words
        # The lab's environment has the password, and the tests look for it in environments.
        environment = {
            name: value for name, value in {**os.environ, **dict(environment)}.items()
            if name != "LAB_PASSWORD"
        }
        self.process = subprocess.Popen(words, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE, env=environment)

    @property
    def pid(self):
        return self.process.pid

    def family(self):
        """The script and all that it has started."""
        pids = [self.pid]
        for pid in pids:
            with contextlib.suppress(OSError):
                pids += map(int, Path(f"/proc/{pid}/task/{pid}/children").read_text().split())
        return pids

    def result(self, within=FOREVER):
        output, error = self.process.communicate(timeout=within)
        assert output == b"", output
        # A failure prints one line, a success nothing; neither shows the password.
        if self.process.returncode == DONE:
            assert error == b"", error
        elif self.process.returncode > 0:
            assert re.fullmatch(rb"(snmp\.ftp|sftp|scp)\.expect: [^\n]+\n",
                                error), (self.process.returncode, error)
            assert SECRET.encode() not in error
        return self.process.returncode


class Transfer:
    """One transfer, which start() starts, with a folder of its own on the switch and a file of its
    own on the server."""

    def __init__(self, script, action, here):
        self.script, self.action = script, action
        self.folder = here / f"{script.program}-{action}"
        self.folder.mkdir()
        self.local, self.remote = self.folder / "here.cfg", f"{self.folder.name}.cfg"
        there = SERVER_ROOT / self.remote
        self.source, self.target = (self.local, there) if action == "put" else (there, self.local)
        self.running = None

    def start(self, **more):
        self.running = self.script.start(self.action, self.local, self.remote, **more)

    def moves(self, **more):
        self.start(**more)
        return self.running.result()

    def is_moving(self):
        """Whether some of it has arrived, under its own name or a temporary one."""
        assert self.running.process.poll() is None, "the script has already ended"
        places = [self.target] if self.action == "put" else self.folder.iterdir()
        return any(path.exists() and path.stat().st_size > 0 for path in places)

    def left_nothing(self):
        """No part of a download is there."""
        return self.action == "put" or os.listdir(self.folder) == []


FTP, SFTP, SCP = Script("snmp.ftp.expect"), Script("sftp.expect"), Script("scp.expect")
SCRIPTS = {"ftp": FTP, "sftp": SFTP, "scp": SCP}
SSH_SCRIPTS = (SFTP, SCP)


def side_by_side(function, *cases):
    """The results of the function for all cases, several at a time."""
    with ThreadPoolExecutor(6) as pool:
        return list(pool.map(lambda case: function(*case), cases))


def results(transfers, **more):
    """The exit codes of the transfers, all at a time."""
    for transfer in transfers:
        transfer.start(**more)
    return [transfer.running.result() for transfer in transfers]


def on_server(*words):
    run("lab-ctl", "server-exec", *words)


def set_password(password):
    """Gives the account another password."""
    shadow = Path("/etc/shadow")
    lines = shadow.read_text().splitlines()
    new = hashed(password)
    shadow.write_text("".join(
        (f"{ACCOUNT}:{new}:19000:0:99999:7:::" if line.startswith(f"{ACCOUNT}:") else line) + "\n"
        for line in lines))


def settings(**values):
    with open(SETTINGS, "a") as file:
        file.writelines(f"{name} = {value}\n" for name, value in values.items())


def opened_by(pids):
    """What the processes have open, as /proc names it."""
    return {os.readlink(link) for pid in pids for link in Path(f"/proc/{pid}/fd").iterdir()}


def gone(pids):
    def alive(pid):
        try:
            return Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()[0] != "Z"
        except OSError:
            return False

    return not any(alive(pid) for pid in pids)


# Servers for the other host

def listening(*ports):
    """Whether the other host listens on all these ports."""
    return all(
        run("lab-ctl", "server-exec", "ss", "-Hltn", f"src {OTHER_HOST}:{port}") for port in ports)


# Accepts connections and never answers.
SILENT = f"""
import select, socket
listeners = [socket.create_server(("{OTHER_HOST}", port)) for port in (21, 22)]
accepted = []
while True:
    for listener in select.select(listeners, [], [])[0]:
        accepted.append(listener.accept())
"""

# An FTP server that gives the replies in its arguments, accepts the account's password and the
# empty one, and does not answer QUIT.
FTP_SERVER = """
import socket, sys
address, reply_before, data, reply_after, size = sys.argv[1:6]
control = socket.create_server((address, 21))
while True:
    peer, _ = control.accept()
    lines = peer.makefile("rb")
    def say(text):
        peer.sendall(text.encode() + b"\\r\\n")
    say("220 ready-0> Password: ")
    passive = None
    for line in lines:
        word, _, rest = line.decode().strip().partition(" ")
        word = word.upper()
        if word == "EPSV":
            passive = socket.create_server((address, 0))
            say(f"229 Entering Extended Passive Mode (|||{passive.getsockname()[1]}|)")
        elif word in ("RETR", "STOR"):
            if not reply_before.startswith("1"):
                say(reply_before)
                continue
            say(reply_before)
            connection, _ = passive.accept()
            if word == "RETR":
                connection.sendall(data.encode())
            else:
                while connection.recv(65536):
                    pass
            connection.close()
            if reply_after == "close":
                break
            say(reply_after)
        else:
            if word == "PASS" and line not in (b"PASS \\r\\n", b"PASS LAB_PASSWORD\\r\\n"):
                say("530 no")
                continue
            if word == "QUIT":
                continue
            answers = {"USER": "331 password", "PASS": "230 welcome", "SYST": "215 UNIX Type: L8",
                       "TYPE": "200 type", "SIZE": size}
            say(answers.get(word, "500 what"))
    lines.close()
    peer.close()
""".replace("LAB_PASSWORD", SECRET)
