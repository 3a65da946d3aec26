"""Logins: passwords, which no other process sees, and host keys."""

import contextlib
import os
import re
from pathlib import Path

import pytest
import ssh_server
from copy_table import LOGS, SERVER4, SERVER_ROOT, STATE_DIRECTORY, lab_ctl, wait_for
from scripts import (
    DONE, FOREVER, FTP, FTP_SERVER, HOST_KEY, KNOWN_HOSTS, LOGIN, NAME, OTHER_HOST,
    SECRET, SETTINGS, SFTP, SPACE, SSH_SCRIPTS, USE, listening, results, set_password, settings,
    side_by_side,
)

PRINTABLE = "".join(map(chr, range(32, 127)))


@pytest.fixture
def password():
    yield set_password
    set_password(SECRET)


@pytest.mark.parametrize("text", [PRINTABLE[:48], PRINTABLE[48:], " \u00e4\u20ac ", "-f"],
                         ids=["first", "second", "utf-8", "option"])
def test_every_password(script, text, password, here):
    password(text)
    (here / "out").write_text("text\n")
    assert script.put(here / "out", "there.cfg", password=text) == DONE
    assert (SERVER_ROOT / "there.cfg").read_text() == "text\n"


@pytest.mark.parametrize("user", ["", "anonymous"])
def test_anonymous_ftp_without_a_password(here, user, other_host):
    (here / "out").write_text("text\n")
    other_host("/usr/bin/python3", "-c", FTP_SERVER, OTHER_HOST, "150 here", "", "226 done", "500")
    wait_for(lambda: listening(21))
    # This server tells an empty password from a blank one.
    assert FTP.put(here / "out", "there.cfg", user=user, password="", server=OTHER_HOST) == DONE
    assert FTP.put(here / "out", "there.cfg", user=user, password="") == DONE
    assert FTP.get("there.cfg", here / "back", user=user, password="") == DONE
    assert (here / "back").read_text() == "text\n"


def test_login_refused(script, transfers):
    refused = [{"password": "wrong"}, {"password": ""}, {"user": "nobody-knows"},
               {"password": "a\nb"}, {"user": "a\tb"}]
    if script is not FTP:
        refused.append({"user": ""})
    for transfer in transfers([script], b"text"):
        assert side_by_side(
            lambda case: transfer.script.start(
                transfer.action, transfer.local, transfer.remote, **case).result(),
            *((case,) for case in refused)) == [LOGIN] * len(refused)
        assert not transfer.target.exists()


def test_message_that_would_hold_the_password(script, here):
    """The server's message has the name of the file, which contains the password."""
    running = script.start("get", here / "back", f"missing-{SECRET}")
    assert running.result() == NAME  # and result() has checked the message


# All the texts that the scripts look for, with a prompt at the end.
BANNER = """Authenticated to anywhere ([192.0.2.1]:22) using "none".
sftp> pwd
Remote working directory: /
debug1: upload local /a to /b
Sink: upload local "//////////////////////////////////////"
/there: No space left on device
ssh: connect to host there port 22: Connection timed out
Host key verification failed.
operator@there: Permission denied (password).
Connection closed by remote host
someone@there's password: """


@pytest.fixture
def own_server(other_host, here):
    """An SSH server with settings of its own."""

    def start(*settings, **more):
        ssh_server.ssh_server(other_host, OTHER_HOST, here, *settings, **more)

    return start


def test_banner_that_says_what_the_scripts_look_for(own_server, transfers, here):
    """Only the client's own words count."""
    (here / "banner").write_text(BANNER)
    own_server("UsePAM no", "KbdInteractiveAuthentication no", f"Banner {here / 'banner'}")
    every = transfers(SSH_SCRIPTS, b"text")
    assert results(every, server=OTHER_HOST) == [DONE] * 4
    assert all(transfer.target.read_bytes() == b"text" for transfer in every)
    assert results(every, server=OTHER_HOST, password="wrong") == [LOGIN] * 4


# Passes SFTP on to the real server, but fails the given write and does not pass it on.
FAILED_WRITE = """
import struct, subprocess, sys, threading
server = subprocess.Popen([sys.argv[1]], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
lock = threading.Lock()
def received(file):
    head = file.read(4)
    return head and head + file.read(*struct.unpack(">I", head))
def answer(packet):
    with lock:
        sys.stdout.buffer.write(packet)
        sys.stdout.buffer.flush()
def pass_on():
    while packet := received(server.stdout):
        answer(packet)
threading.Thread(target=pass_on).start()
writes = 0
while packet := received(sys.stdin.buffer):
    writes += packet[4] == 6  # SSH_FXP_WRITE
    if packet[4] == 6 and writes == int(sys.argv[2]):
        answer(struct.pack(">IB4sIII", 17, 101, packet[5:9], 4, 0, 0))  # SSH_FX_FAILURE
    else:
        server.stdin.write(packet)
        server.stdin.flush()
server.stdin.close()
"""


@pytest.mark.parametrize("script", SSH_SCRIPTS, ids=lambda script: script.program)
@pytest.mark.parametrize("number, code", [(1, SPACE), (3, SPACE), (8, SPACE), (0, DONE)])
def test_a_write_that_fails(own_server, transfers, here, script, number, code):
    """A disk that is full only for a moment leaves a hole. The clients pass over that."""
    program = here / "failed-write"
    program.write_text(FAILED_WRITE)
    server = re.search("(?m)^Subsystem sftp (.*)", Path("/lab/server/sshd_config").read_text())[1]
    own_server("UsePAM no", sftp=f"/usr/bin/python3 {program} {server} {number}")
    put, _ = transfers([script], os.urandom(2_000_000))
    assert put.moves(server=OTHER_HOST) == code
    assert (put.target.read_bytes() == put.source.read_bytes()) == (code == DONE)
    if number == 3:
        assert reason(put, SPACE, server=OTHER_HOST) == (
            "the server has not written a part of the file: SFTP status 4\n")


def test_keyboard_interactive(own_server, here):
    """A server that sends prompts of its own (RFC 4256)."""
    Path("/etc/pam.d/sshd").write_text(
        "auth required pam_unix.so nodelay\naccount required pam_permit.so\n"
        "session required pam_permit.so\n"
    )
    own_server("UsePAM yes", "PasswordAuthentication no", "KbdInteractiveAuthentication yes")
    (here / "out").write_text("text\n")
    for script in SSH_SCRIPTS:
        assert script.put(here / "out", f"asked-{script.program}", server=OTHER_HOST) == DONE
        assert (SERVER_ROOT / f"asked-{script.program}").read_text() == "text\n"
        assert script.put(here / "out", "asked.cfg", server=OTHER_HOST, password="wrong") == LOGIN


def test_changed_host_key(transfers):
    both = transfers(SSH_SCRIPTS, b"text")
    assert both[0].moves() == DONE
    both[0].target.unlink()
    assert KNOWN_HOSTS.read_text().startswith(f"{SERVER4} ssh-ed25519 ")
    lab_ctl("new-host-key")
    assert results(both) == [HOST_KEY] * 4
    assert not any(transfer.target.exists() for transfer in both)
    KNOWN_HOSTS.unlink()
    assert results(both) == [DONE] * 4


def test_first_contact_off(transfers):
    both = transfers(SSH_SCRIPTS, b"text")
    settings(ssh_accept_new_host_keys="no")
    assert results(both) == [HOST_KEY] * 4
    assert not KNOWN_HOSTS.exists() and not any(transfer.target.exists() for transfer in both)
    settings(ssh_accept_new_host_keys="yes")
    assert both[0].moves() == DONE
    settings(ssh_accept_new_host_keys="no")
    assert results(both) == [DONE] * 4


SERVER_LOG = LOGS / "ssh.log"  # where the server logs each connection


def test_first_contact_off_in_other_words(transfers):
    both = transfers(SSH_SCRIPTS, b"text")
    for word in ("No", "off", "false", "FALSE"):
        settings(ssh_accept_new_host_keys=word)
        before = len(SERVER_LOG.read_text())
        assert results(both) == [HOST_KEY] * 4, word
        logins = [
            line for line in SERVER_LOG.read_text()[before:].splitlines() if "password" in line
        ]
        assert logins == [], word  # the password was never sent
    for word in ("Yes", "on", "TRUE"):
        settings(ssh_accept_new_host_keys=word)
        assert results(both[:1]) == [DONE], word
        KNOWN_HOSTS.unlink()


@contextlib.contextmanager
def unreadable_settings():
    """Puts a folder in the place of the file, so that it can't be read."""
    text = SETTINGS.read_text()
    SETTINGS.unlink()
    SETTINGS.mkdir()
    try:
        yield
    finally:
        SETTINGS.rmdir()
        SETTINGS.write_text(text)


def reason(transfer, code=USE, **more):
    """Why the transfer fails."""
    transfer.start(**more)
    output, error = transfer.running.process.communicate(timeout=FOREVER)
    assert transfer.running.process.returncode == code and output == b""
    return error.decode().partition(": ")[2]


def test_settings_that_refuse(transfers):
    """No server is contacted if a setting that guards something is bad, or if the settings can't be
    read."""
    both, every = transfers(SSH_SCRIPTS, b"text"), [FTP, *SSH_SCRIPTS]
    before = len(SERVER_LOG.read_text())
    for word in ("maybe", "", "0", "yes please"):
        settings(ssh_accept_new_host_keys=word)
        lines = len(SETTINGS.read_text().splitlines())
        expected = (f"{SETTINGS} line {lines}: ssh_accept_new_host_keys = {word}: "
                    "must be yes or no; copies by SFTP and SCP fail\n")
        assert {reason(transfer) for transfer in both} == {expected}
    with unreadable_settings():
        for script in every:
            done = script.start("put", both[0].source, "never.cfg")
            assert done.process.communicate(timeout=FOREVER) == (
                b"",
                f"{script.program}: {SETTINGS} can't be read: Is a directory; "
                "copies and saves fail\n"
                .encode())
            assert done.process.returncode == USE
    assert SERVER_LOG.read_text()[before:] == "" and not KNOWN_HOSTS.exists()


@pytest.fixture
def identity():
    """Makes a key of the switch and sets it."""
    made = []

    def make(name="ssh_identity", **more):
        made.append(ssh_server.identity(name, **more))
        settings(ssh_identity=made[-1])
        return made[-1]

    yield make
    for key in made:
        ssh_server.remove(key)


# The second name has all that a configuration line, a shell or Tcl could interpret.
@pytest.mark.parametrize("name", ["ssh_identity", "a %h \"b'c\\d$HOME [exit] {x;y}"],
                         ids=["plain", "hostile"])
def test_key_instead_of_a_password(name, identity, own_server, transfers, here):
    """The password of the request is neither asked for nor needed."""
    ssh_server.authorize(here, identity(name))
    own_server(*ssh_server.KEYS_ONLY)
    every = transfers(SSH_SCRIPTS, b"text")
    for password in ("", "wrong"):
        assert results(every, server=OTHER_HOST, password=password) == [DONE] * 4
        for transfer in every:
            assert transfer.target.read_bytes() == b"text"
            transfer.target.unlink()


def test_key_that_the_server_refuses(identity, own_server, transfers):
    identity()
    own_server(*ssh_server.KEYS_ONLY)
    every = transfers(SSH_SCRIPTS, b"text")
    for password in ("", SECRET):
        assert results(every, server=OTHER_HOST, password=password) == [LOGIN] * 4
    assert not any(transfer.target.exists() for transfer in every)


def test_password_after_a_key_that_the_server_refuses(identity, transfers):
    identity()
    every = transfers(SSH_SCRIPTS, b"text")
    assert results(every) == [DONE] * 4
    assert results(every, password="wrong") == [LOGIN] * 4
    assert results(every, password="") == [LOGIN] * 4


def test_key_before_the_password(identity, own_server, here):
    """A server that wants both."""
    ssh_server.authorize(here, identity())
    own_server("UsePAM no", "AuthenticationMethods publickey,password")
    (here / "out").write_text("text\n")
    for script in SSH_SCRIPTS:
        assert script.put(here / "out", f"both-{script.program}", server=OTHER_HOST) == DONE
        assert script.put(here / "out", "x", server=OTHER_HOST, password="wrong") == LOGIN


def test_no_key_without_the_setting(own_server, identity, here):
    """No key of the agent's user is tried, wherever it is."""
    ssh_server.authorize(here, identity())
    settings(ssh_identity="")
    own_server(*ssh_server.KEYS_ONLY)
    (here / "out").write_text("text\n")
    for script in SSH_SCRIPTS:
        assert script.put(here / "out", "x", server=OTHER_HOST) == LOGIN


def test_keys_that_can_not_be_used(identity, transfers):
    """No server is contacted with a key that can't be used."""
    both = transfers(SSH_SCRIPTS, b"text")
    before = len(SERVER_LOG.read_text())

    def refused(text):
        assert {reason(transfer) for transfer in both} == {text}

    for kind in ("ed25519", "rsa"):
        key = identity(kind, kind=kind, passphrase="secret phrase")
        refused(f"ssh_identity = {key}: it has a passphrase, which nobody can type here; "
                "remove it with `ssh-keygen -p`\n")
    key = identity()
    key.write_text("no key\n")
    refused(f'ssh_identity = {key}: Load key "{key}": error in libcrypto\n')

    def must(file):
        lines = len(SETTINGS.read_text().splitlines())
        refused(f"{SETTINGS} line {lines}: ssh_identity = {file}: must be the absolute path of a "
                "file that belongs to the agent's user, with mode 0600; copies by SFTP and SCP "
                "fail\n")

    for mode in (0o640, 0o604, 0o620, 0o610):
        key.chmod(mode)
        must(key)
    key.chmod(0o600)
    os.chown(key, 1, 1)
    must(key)
    for file in ("ssh_identity", "~/.ssh/id_ed25519", "/nonexistent", STATE_DIRECTORY, "yes"):
        settings(ssh_identity=file)
        must(file)
    assert SERVER_LOG.read_text()[before:] == "" and not KNOWN_HOSTS.exists()


def test_bad_limits_leave_the_default(transfers):
    both = transfers([SFTP], b"text")
    settings(transfer_idle_limit="30s", transfer_time_limit="0")
    assert results(both) == [DONE] * 2


@pytest.mark.parametrize("which", [0, 1], ids=["put", "get"])
def test_password_is_nowhere_to_be_seen(script, which, transfers, slow_link):
    """The script has the password among its arguments until it executes itself again, which it does
    before it starts any program. No other process has it there, and none in its environment."""
    slow_link(800)
    transfer = transfers([script], bytes(40_000))[which]
    transfer.start(vrf=1)
    running = transfer.running
    secret, seen, clients = SECRET.encode(), [], set()
    while running.process.poll() is None:
        family = running.family()
        for entry in Path("/proc").iterdir():
            if not entry.name.isdigit():
                continue
            with contextlib.suppress(OSError):
                arguments = (entry / "cmdline").read_bytes()
                if secret in arguments and (int(entry.name) != running.pid or len(family) > 1):
                    seen.append(arguments)
                if int(entry.name) in family:
                    clients.add(arguments.split(b"\0")[0])
                    environment = (entry / "environ").read_bytes()
                    if secret in environment:
                        seen.append(environment)
    assert running.result() == DONE
    assert seen == [] and clients & {b"ftp", b"sftp", b"scp"}
