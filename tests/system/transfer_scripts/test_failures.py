"""Every way in which a transfer fails has its exit code, and leaves no part of a download."""

import contextlib
import os
import signal
import time
from pathlib import Path

import pytest
from copy_table import SERVER_ROOT, lab_ctl, run, serve, wait_for
from scripts import (
    DONE, FTP, FTP_SERVER, LOST, NAME, NO_ROUTE, OTHER, OTHER_HOST, SCP, SCRIPTS, SILENT, SIZE,
    SPACE, SSH_SCRIPTS, UNREACHABLE, USE, Running, gone, listening, opened_by, results, settings,
    side_by_side,
)

LARGE = 3_000_000
LARGEST = 128 * 1024 * 1024  # octets of a download
LASTING = 20_000_000  # not done within a few seconds on the links below


@pytest.fixture
def untouched(here):
    """Checks that only the files that the test itself made are here afterwards."""
    before = None

    def keep():
        nonlocal before
        before = {path: path.read_bytes() if path.is_file() else None for path in here.iterdir()}

    yield keep
    assert {path: path.read_bytes() if path.is_file() else None
            for path in here.iterdir()} == before


# The server can't be reached


def test_unreachable(script, transfers, other_host):
    servers = [OTHER_HOST, NO_ROUTE, "no-such-host.invalid"]
    if script is not SCP:  # which would not take these for servers in a target
        servers += ["-x", "a b"]
    for transfer in transfers([script], b"text"):
        transfer.target.write_bytes(b"old")
        assert side_by_side(
            lambda server: transfer.script.start(transfer.action, transfer.local, transfer.remote,
                                                 server=server).result(),
            *((server,) for server in servers)) == [UNREACHABLE] * len(servers)
        assert transfer.target.read_bytes() == b"old" and len(os.listdir(transfer.folder)) == 1


def test_silent_server(transfers, other_host):
    settings(transfer_idle_limit=2)
    other_host("/usr/bin/python3", "-c", SILENT)
    wait_for(lambda: listening(21, 22))
    every = transfers(SCRIPTS.values(), b"text")
    began = time.monotonic()
    assert results(every, server=OTHER_HOST) == [UNREACHABLE] * 6
    assert 1 < time.monotonic() - began < 10
    assert all(transfer.left_nothing() for transfer in every)


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
    assert side_by_side(lambda name: script.get(name, here / "back"),
                        *((name,) for name in downloads)) == [NAME] * len(downloads)
    assert side_by_side(lambda name: script.put(here / "out", name),
                        *((name,) for name in uploads)) == [NAME] * len(uploads)
    if script is not SCP:  # which notices the folder only when it has begun
        assert os.listdir(SERVER_ROOT / "folder") == []


def test_control_characters_are_refused_before_any_connection(script, here, untouched):
    (here / "out").write_bytes(b"text")
    untouched()
    names = ["a\nb", "\ta", "a\r", "\x7f", "\x01", "a\x1b[m"]
    assert side_by_side(lambda name: script.put(here / "out", name, server=NO_ROUTE),
                        *((name,) for name in names)) == [NAME] * len(names)
    assert side_by_side(lambda name: script.get(name, here / "back", server=NO_ROUTE),
                        *((name,) for name in names)) == [NAME] * len(names)
    assert script.put(here / "o\nut", "x", server=NO_ROUTE) == NAME
    assert script.get("x", here / "o\nut", server=NO_ROUTE) == NAME


def test_local_names_refused(script, here, untouched):
    (here / "folder").mkdir()
    os.mkfifo(here / "pipe")
    untouched()
    serve("there.cfg", "text\n")
    sources = [here / "missing", here / "folder", here / "pipe", here / "missing" / "x", ""]
    targets = [here / "folder", here / "missing" / "x", "/proc/x", ""]
    assert side_by_side(lambda name: script.put(str(name), "x"),
                        *((name,) for name in sources)) == [NAME] * len(sources)
    assert side_by_side(lambda name: script.get("there.cfg", str(name)),
                        *((name,) for name in targets)) == [NAME] * len(targets)


# Space


@pytest.mark.parametrize("octets", [LARGEST + 1, 2**40], ids=["by one octet", "by far"])
def test_file_that_is_too_large(script, here, untouched, octets):
    os.truncate(serve("huge", b""), octets)
    (here / "old").write_bytes(b"old")
    untouched()
    assert script.get("huge", here / "new") == SIZE
    assert script.get("huge", here / "old") == SIZE


def test_file_of_the_largest_size(script, here):
    os.truncate(serve("large", b""), LARGEST)
    assert script.get("large", here / "new") == DONE
    assert (here / "new").stat().st_size == LARGEST


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


def moving(transfers):
    """Starts them all and waits until some of each has arrived."""
    for transfer in transfers:
        transfer.start()
    wait_for(lambda: all(transfer.is_moving() for transfer in transfers), what="the first octets")


@pytest.mark.parametrize("kind, scripts", [("ftp", [FTP]), ("ssh", SSH_SCRIPTS)],
                         ids=["ftp", "ssh"])
def test_killed_server(kind, scripts, transfers, slow_link):
    slow_link(8000)
    every = transfers(scripts, bytes(LASTING))
    moving(every)
    lab_ctl("kill-server", kind)
    try:
        assert [transfer.running.result() for transfer in every] == [LOST] * len(every)
    finally:
        slow_link(100_000)
        lab_ctl("start-server", kind)
    assert all(transfer.left_nothing() for transfer in every)


def test_cut_link(transfers, slow_link, broken_link):
    settings(transfer_idle_limit=1)
    lab_ctl("mend-link")
    slow_link(8000)
    every = transfers(SCRIPTS.values(), bytes(LASTING))
    moving(every)
    lab_ctl("break-link")
    began = time.monotonic()
    assert [transfer.running.result() for transfer in every] == [UNREACHABLE] * 6
    assert time.monotonic() - began < 10
    assert all(transfer.left_nothing() for transfer in every)
    # The servers are not notified that their peers are gone, so their sessions go on.
    slow_link(100_000)
    lab_ctl("mend-link")
    for kind in ("ftp", "ssh"):
        lab_ctl("kill-server", kind)
        lab_ctl("start-server", kind)


def test_slow_is_not_idle(transfers, slow_link):
    """Each file is hardly longer than the blocks that the clients move at once, and all together
    take longer than the limit. The limit allows for the time in which the others use the common
    link."""
    settings(transfer_idle_limit=5)
    slow_link(120)
    content = os.urandom(28_000)
    every = transfers(SCRIPTS.values(), content)
    began = time.monotonic()
    assert results(every) == [DONE] * 6
    assert time.monotonic() - began > 6
    assert all(transfer.target.read_bytes() == content for transfer in every)


def test_process_that_ends_while_it_is_looked_at():
    """Tcl's glob fails if a folder is gone when it reads it."""
    ended = f"""
        source {{{Path(__file__).parents[3] / "platform/host/transfer/transfer.tcl"}}}
        proc glob args {{ error "couldn't read directory" }}
        set client_pid [pid]
        puts [llength [progress_now]]
    """
    assert run("expect", "-c", ended) == "1\n"  # what the process itself has read


def test_time_limit(transfers, slow_link):
    settings(transfer_time_limit=2)
    slow_link(2000)
    every = transfers(SCRIPTS.values(), bytes(LASTING))
    assert results(every) == [UNREACHABLE] * 6
    assert all(transfer.left_nothing() for transfer in every)


@pytest.mark.parametrize("number, code", [(signal.SIGTERM, OTHER),
                                          (signal.SIGKILL, -signal.SIGKILL)],
                         ids=["SIGTERM", "SIGKILL"])
def test_killed_script_leaves_no_client(number, code, transfers, slow_link):
    slow_link(8000)
    every = transfers(SCRIPTS.values(), bytes(LASTING))
    moving(every)
    families = [transfer.running.family() for transfer in every]
    streams = [transfer.running.process.stderr for transfer in every]
    assert not any(f"pipe:[{os.fstat(stream.fileno()).st_ino}]" in opened_by(family[1:])
                   for family, stream in zip(families, streams))
    assert [len(family) for family in families] == [2, 2, 3, 3, 3, 3]
    for transfer in every:
        os.kill(transfer.running.pid, number)
    assert [transfer.running.result() for transfer in every] == [code] * 6
    wait_for(lambda: all(map(gone, families)), 5, "the end of the clients")
    assert number == signal.SIGKILL or all(transfer.left_nothing() for transfer in every)


def test_killed_script_that_waits_for_a_server(other_host, here):
    other_host("/usr/bin/python3", "-c", SILENT)
    wait_for(lambda: listening(21, 22))
    for script in SCRIPTS.values():
        running = script.start("get", here / "x", "x", server=OTHER_HOST)
        wait_for(lambda: len(running.family()) == (2 if script is FTP else 3), what="the client")
        family = running.family()
        os.kill(running.pid, signal.SIGKILL)
        running.result()
        wait_for(lambda: gone(family), 5, "the end of the client")


# Servers whose replies contradict each other

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
    wait_for(lambda: listening(21))
    (here / "out").write_bytes(b"data")
    assert FTP.put(here / "out", "x", server=OTHER_HOST) == code
    assert FTP.get("x", here / "back", server=OTHER_HOST) == code
    assert sorted(os.listdir(here)) == (["back", "out"] if code == DONE else ["out"])


# Arguments


@pytest.mark.parametrize("words", [(), ("-c", "exec touch /tmp/owned"),
                                   ("-d", "-c", "exec touch /tmp/owned", "x", "x", "x"),
                                   ("-f", "/etc/passwd"), ("a", "b", "c", "d", "e", "f", "g", "h"),
                                   ("a", "b", "c", "d", "e", "f", "g"), ("x" * 100_000,)],
                         ids=["none", "-c", "-d", "-f", "many", "seven", "long"])
def test_wrong_use(script, words):
    assert Running([f"/ulmo/bin/{script.program}", *words]).result() == USE
    assert not Path("/tmp/owned").exists()
