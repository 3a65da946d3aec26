"""Every way in which a transfer fails has its exit code, and leaves no part of a download."""

import pytest
from scripts import *

LARGE = 3_000_000


@pytest.fixture
def untouched(here):
    """Afterwards nothing is here but what the test has made."""
    before = None

    def keep():
        nonlocal before
        before = {path: path.read_bytes() if path.is_file() else None for path in here.iterdir()}

    yield keep
    assert {path: path.read_bytes() if path.is_file() else None for path in here.iterdir()} == before


# The server can't be reached


def test_unreachable(script, action, files, untouched, other_host):
    local, remote, target = files(action, b"text")
    target.write_bytes(b"old")
    untouched()
    servers = [OTHER_HOST, NO_ROUTE, "no-such-host.invalid", "-x", "a b"] if script is not SCP else [OTHER_HOST, NO_ROUTE, "no-such-host.invalid"]
    assert side_by_side(lambda server: script.move(action, local, remote, server=server), *((server,) for server in servers)) == [UNREACHABLE] * len(servers)


SILENT = f"""
import select, socket
listeners = [socket.create_server(("{OTHER_HOST}", port)) for port in (21, 22)]
accepted = []
while True:
    for listener in select.select(listeners, [], [])[0]:
        accepted.append(listener.accept())
"""


def listening():
    return all(subprocess.run(["lab-ctl", "server-exec", "ss", "-Hltn", f"src {OTHER_HOST}:{port}"], stdout=subprocess.PIPE).stdout for port in (21, 22))


def test_silent_server(action, files, other_host, untouched):
    settings(transfer_idle_limit=2)
    other_host("/usr/bin/python3", "-c", SILENT)
    wait_for(listening)
    local, remote, target = files(action, b"text")
    untouched()
    began = time.monotonic()
    assert side_by_side(lambda script: script.move(action, local, remote, server=OTHER_HOST), *((script,) for script in SCRIPTS.values())) == [UNREACHABLE] * 3
    assert 1 < time.monotonic() - began < 10


# File names


def test_names_refused_by_the_server(script, here, untouched):
    (here / "out").write_bytes(b"text")
    untouched()
    (SERVER_ROOT / "folder").mkdir()
    os.chown(SERVER_ROOT / "folder", os.stat(SERVER_ROOT).st_uid, -1)
    serve("unreadable", "text\n", mode=0o600)
    serve("protected", "text\n", mode=0o444)
    downloads = ["missing", "folder", "unreadable", "missing/x", "x" * 300]
    uploads = ["folder", "protected", "missing/x", "/etc/x", "x" * 300, "folder/"]
    assert side_by_side(lambda name: script.get(name, here / "back"), *((name,) for name in downloads)) == [NAME] * len(downloads)
    assert side_by_side(lambda name: script.put(here / "out", name), *((name,) for name in uploads)) == [NAME] * len(uploads)
    if script is not SCP:  # which notices the folder only when it has begun
        assert os.listdir(SERVER_ROOT / "folder") == []


def test_control_characters_are_refused_before_any_connection(script, here, untouched):
    (here / "out").write_bytes(b"text")
    untouched()
    names = ["a\nb", "\ta", "a\r", "\x7f", "\x01", "a\x1b[m"]
    assert side_by_side(lambda name: script.put(here / "out", name, server=NO_ROUTE), *((name,) for name in names)) == [NAME] * len(names)
    assert side_by_side(lambda name: script.get(name, here / "back", server=NO_ROUTE), *((name,) for name in names)) == [NAME] * len(names)
    assert script.put(here / "o\nut", "x", server=NO_ROUTE) == NAME
    assert script.get("x", here / "o\nut", server=NO_ROUTE) == NAME


def test_local_names_refused(script, here, untouched):
    (here / "folder").mkdir()
    os.mkfifo(here / "pipe")
    untouched()
    serve("there.cfg", "text\n")
    sources = [here / "missing", here / "folder", here / "pipe", here / "missing" / "x", ""]
    targets = [here / "folder", here / "missing" / "x", "/proc/x", ""]
    assert side_by_side(lambda name: script.put(str(name), "x"), *((name,) for name in sources)) == [NAME] * len(sources)
    assert side_by_side(lambda name: script.get("there.cfg", str(name)), *((name,) for name in targets)) == [NAME] * len(targets)


# Space


def test_full_server(script, here, small_disk):
    (here / "out").write_bytes(bytes(LARGE))
    assert script.put(here / "out", str(small_disk / "x")) == SPACE


def test_full_switch(script, small_disk):
    serve("large.cfg", "x" * LARGE)
    assert script.get("large.cfg", small_disk / "x") == SPACE
    assert os.listdir(small_disk) == []


def test_switch_without_any_room(script, small_disk):
    """Not even a name for the file fits."""
    serve("there.cfg", "text\n")
    with contextlib.suppress(OSError):
        for number in range(100_000):
            (small_disk / str(number)).touch()
    before = len(os.listdir(small_disk))
    assert script.get("there.cfg", small_disk / "x") == SPACE
    assert len(os.listdir(small_disk)) == before


# In the middle


def moving(running, target):
    """Waits until some of a transfer has arrived, be it under its name or a temporary one."""

    def size():
        return max((path.stat().st_size for path in target.parent.iterdir() if path.name == target.name or path.name.startswith(".transfer-")), default=0)

    wait_for(lambda: size() > 0 or running.process.poll() is not None, what="the first octets")
    assert running.process.poll() is None


def test_killed_server(script, action, files, slow_link):
    slow_link(4000)
    local, remote, target = files(action, bytes(LARGE))
    running = script.start(action, local, remote)
    moving(running, target)
    kind = "ftp" if script is FTP else "ssh"
    lab_ctl("kill-server", kind)
    try:
        assert running.result() == LOST
    finally:
        lab_ctl("start-server", kind)
    if action == "get":
        assert not target.exists() and os.listdir(target.parent) == []


def test_cut_link(action, files, here, slow_link, broken_link):
    """All protocols at once, since each has to wait for the limit."""
    settings(transfer_idle_limit=2)
    lab_ctl("mend-link")
    slow_link(4000)
    transfers = [(script, *files(action, bytes(LARGE))) for script in SCRIPTS.values()]
    running = []
    for number, (script, local, remote, target) in enumerate(transfers):
        folder = here / str(number)
        folder.mkdir()
        target = folder / "x" if action == "get" else SERVER_ROOT / f"x{number}"
        running.append((script.start(action, target if action == "get" else local, remote if action == "get" else target.name), target))
    for transfer, target in running:
        moving(transfer, target)
    lab_ctl("break-link")
    began = time.monotonic()
    assert [transfer.result() for transfer, _ in running] == [UNREACHABLE] * 3
    assert time.monotonic() - began < 10
    assert action == "put" or all(os.listdir(target.parent) == [] for _, target in running)
    # Servers that have lost their peers without a word do not end their sessions.
    slow_link(100_000)
    lab_ctl("mend-link")
    for kind in ("ftp", "ssh"):
        lab_ctl("kill-server", kind)
        lab_ctl("start-server", kind)


def test_slow_is_not_idle(files, here, slow_link):
    """What arrives is far less than a block a second."""
    settings(transfer_idle_limit=3)
    slow_link(200)
    content = os.urandom(40_000)
    (here / "out").write_bytes(content)
    for number in range(3):
        serve(f"down{number}", "").write_bytes(content)
    cases = [(script, action, number) for number, script in enumerate(SCRIPTS.values()) for action in ("put", "get")]

    def transfer(script, action, number):
        began = time.monotonic()
        code = script.put(here / "out", f"up{number}") if action == "put" else script.get(f"down{number}", here / f"down{number}")
        return code, time.monotonic() - began

    results = side_by_side(transfer, *cases)
    assert [code for code, _ in results] == [DONE] * 6
    assert min(seconds for _, seconds in results) > 4
    assert all((SERVER_ROOT / f"up{number}").read_bytes() == (here / f"down{number}").read_bytes() == content for number in range(3))


def test_time_limit(action, files, slow_link):
    settings(transfer_time_limit=3)
    slow_link(1000)
    local, remote, target = files(action, bytes(LARGE))
    assert side_by_side(lambda script: script.move(action, local, remote), *((script,) for script in SCRIPTS.values())) == [UNREACHABLE] * 3
    assert action == "put" or os.listdir(target.parent) == []


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGKILL], ids=["SIGTERM", "SIGKILL"])
def test_killed_script_leaves_no_client(script, action, number, files, slow_link):
    slow_link(4000)
    local, remote, target = files(action, bytes(LARGE))
    running = script.start(action, local, remote)
    moving(running, target)
    family = running.family()
    assert len(family) == (2 if script is FTP else 3)
    os.kill(running.pid, number)
    assert running.result() == (OTHER if number == signal.SIGTERM else -signal.SIGKILL)
    wait_for(lambda: gone(family), 5, "the end of the client")
    if action == "get" and number == signal.SIGTERM:
        assert os.listdir(target.parent) == []


def test_killed_script_that_waits_for_a_server(other_host, here):
    other_host("/usr/bin/python3", "-c", SILENT)
    wait_for(listening)
    for script in SCRIPTS.values():
        running = script.start("get", here / "x", "x", server=OTHER_HOST)
        wait_for(lambda: len(running.family()) == (2 if script is FTP else 3), what="the client")
        family = running.family()
        os.kill(running.pid, signal.SIGKILL)
        running.result()
        wait_for(lambda: gone(family), 5, "the end of the client")


# A server that does not keep to what it says

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
            say({"USER": "331 password", "PASS": "230 welcome", "SYST": "215 UNIX Type: L8", "TYPE": "200 type", "SIZE": size, "QUIT": "221 bye"}.get(word, "500 what"))
    lines.close()
    peer.close()
"""


@pytest.mark.parametrize("replies, code", [
    (("150 here", "data", "226 done", "213 4"), DONE),
    (("150 here", "data", "226 done", "500 no SIZE"), DONE),
    (("150 here", "data", "226 done", "213 5"), LOST),
    (("150 here", "data", "426 aborted", "213 4"), LOST),
    (("150 here", "data", "close", "213 4"), LOST),
    (("150 here", "data", "451 no space left", "213 4"), SPACE),
    (("150 here", "data", "552 over", "213 4"), SPACE),
    (("150 here", "data", "551 what", "213 4"), NAME),
    (("150 here", "data", "200 hm", "213 4"), OTHER),
    (("452 full", "", "", "213 4"), SPACE),
    (("550 Disk quota exceeded", "", "", "213 4"), SPACE),
    (("553 not that name", "", "", "213 4"), NAME),
    (("502 not now", "", "", "213 4"), OTHER),
], ids=lambda value: "-".join(value)[:40] if isinstance(value, tuple) else str(value))
def test_the_servers_last_word(replies, code, here, other_host):
    other_host("/usr/bin/python3", "-c", FTP_SERVER, OTHER_HOST, *replies)
    wait_for(lambda: subprocess.run(["lab-ctl", "server-exec", "ss", "-Hltn", f"src {OTHER_HOST}:21"], stdout=subprocess.PIPE).stdout)
    (here / "out").write_bytes(b"data")
    assert FTP.put(here / "out", "x", server=OTHER_HOST) == code
    assert FTP.get("x", here / "back", server=OTHER_HOST) == code
    assert sorted(os.listdir(here)) == (["back", "out"] if code == DONE else ["out"])


# Arguments


@pytest.mark.parametrize("words", [(), ("-c", "exec touch /tmp/owned"), ("-d", "-c", "exec touch /tmp/owned", "x", "x", "x"), ("-f", "/etc/passwd"),
                                   ("a", "b", "c", "d", "e", "f", "g", "h"), ("a", "b", "c", "d", "e", "f", "g"), ("x" * 100_000,)],
                         ids=["none", "-c", "-d", "-f", "many", "seven", "long"])
def test_wrong_use(script, words):
    assert Running([f"/ulmo/bin/{script.program}", *words]).result() == USE
    assert not Path("/tmp/owned").exists()
