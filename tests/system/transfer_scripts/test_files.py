"""Files arrive whole and under their own names."""

import os
from pathlib import Path

import pytest
from copy_table import SERVER4, SERVER6, SERVER_ROOT, STATE_DIRECTORY
from scripts import (
    DONE, SCP, SCRIPTS, SECRET, UNREACHABLE, USE, on_server, results, settings, side_by_side,
)
from shadow import hashed

CONTENT = bytes(range(256)) * 40

# Names that are special to a shell, Tcl or a client's command line, or look like a pattern, an
# option or an address.
NAMES = [
    b"plain.cfg",
    b"1.50",
    b"0x10",
    b"a  b'c\"d`touch owned`$(touch owned)$HOME;touch owned&<>#x!%d%n^",
    b"*?[a-z]{b,c}\\*\\\\",
    b"-oProxyCommand=touch owned",
    b"-",
    b"| touch owned",
    b"!touch owned",
    b"~root",
    b"[exec touch owned]${x}",
    b"2:b:[c]:d@e",
    b"trailing blanks  ",
    "h\u00e4\u20ac\U0001f600".encode(),
    b"\xff\xe4 no UTF-8",
    b"l" * 128,
]


@pytest.mark.parametrize("server", [SERVER4, SERVER6], ids=["ipv4", "ipv6"])
def test_there_and_back(script, server, here):
    (here / "out").write_bytes(CONTENT)
    assert script.put(here / "out", "there.cfg", server=server) == DONE
    assert (SERVER_ROOT / "there.cfg").read_bytes() == CONTENT
    assert script.get("there.cfg", here / "back", server=server) == DONE
    assert (here / "back").read_bytes() == CONTENT
    assert (here / "back").stat().st_mode & 0o777 == 0o600
    assert sorted(os.listdir(here)) == ["back", "out"]


def test_machine_without_a_list_of_services(script, here):
    """A bare system has no list of the names of ports."""
    services, away = Path("/etc/services"), Path("/etc/services.away")
    services.rename(away)
    try:
        (here / "out").write_bytes(CONTENT)
        assert script.put(here / "out", "there.cfg") == DONE
    finally:
        away.rename(services)
    assert (SERVER_ROOT / "there.cfg").read_bytes() == CONTENT


@pytest.mark.parametrize("locale", ["C", "C.UTF-8"])
def test_names_are_literal(script, here, locale, monkeypatch):
    monkeypatch.chdir(here)
    environment = {"LC_ALL": locale, "HOME": "/root"}

    def round_trip(name):
        local = here / os.fsdecode(name)
        local.write_bytes(CONTENT + name)
        up = script.put(local, os.fsdecode(name), environment=environment)
        back = here / os.fsdecode(b"back-" + name[:100])
        return up, script.get(
            os.fsdecode(name), back,
            environment=environment), back.exists() and back.read_bytes() == CONTENT + name

    names = NAMES if locale == "C" else NAMES[-4:]
    assert side_by_side(round_trip,
                        *((name,) for name in names)) == [(DONE, DONE, True)] * len(names)
    assert sorted(os.listdir(os.fsencode(SERVER_ROOT))) == sorted(names)
    assert all((SERVER_ROOT / os.fsdecode(name)).read_bytes() == CONTENT + name for name in names)
    assert not Path("/root/owned").exists() and len(os.listdir(here)) == 2 * len(names)


def test_names_relative_to_the_working_folder(script, here, monkeypatch):
    monkeypatch.chdir(here)
    Path("~x").write_bytes(CONTENT)
    assert script.put("~x", "~y") == DONE
    assert script.get("~y", "-z") == DONE
    assert Path("-z").read_bytes() == CONTENT
    assert sorted(os.listdir(here)) == ["-z", "~x"]


def test_absolute_name_and_empty_file(script, here):
    (here / "empty").touch()
    assert script.put(here / "empty", str(SERVER_ROOT / "empty.cfg")) == DONE
    assert script.get(str(SERVER_ROOT / "empty.cfg"), here / "back") == DONE
    assert (here / "back").read_bytes() == b""


def test_a_longer_file_is_replaced(script, transfers):
    for transfer in transfers([script], b"short"):
        transfer.target.write_bytes(CONTENT)
        transfer.target.chmod(0o666)
        assert transfer.moves() == DONE
        assert transfer.target.read_bytes() == b"short"


def test_scp_takes_targets_apart(here):
    """A user's name with an '@' and other special characters, an IPv6 address in brackets, a file
    after an address that could also end elsewhere."""
    (here / "out").write_bytes(CONTENT)
    user = "a@b %u \u00e4"
    with open("/etc/passwd", "a") as passwd, open("/etc/shadow", "a") as shadow:
        number = os.stat(SERVER_ROOT).st_uid
        passwd.write(f"{user}:x:{number}:{number}::{SERVER_ROOT}:/bin/bash\n")
        shadow.write(f"{user}:{hashed(SECRET)}:19000:0:99999:7:::\n")
    assert SCP.put(here / "out", "one", user=user) == DONE
    assert SCP.put(here / "out", "2:two", server=f"[{SERVER6}]") == DONE
    assert SCP.put(here / "out", ":three", server=SERVER6) == DONE
    assert sorted(os.listdir(SERVER_ROOT)) == ["2:two", ":three", "one"]
    # Not the file `1:four` on the server, but `four` on an address where no server listens.
    longer = f"{SERVER6}:1"
    on_server("ip", "address", "add", f"{longer}/64", "dev", "br0")
    try:
        assert SCP.put(here / "out", "four", server=longer) == UNREACHABLE
    finally:
        on_server("ip", "address", "del", f"{longer}/64", "dev", "br0")


def test_in_a_vrf(transfers, here, broken_link):
    """The VRF is the server's own namespace, the only one from which the server can be reached."""
    vrfs = STATE_DIRECTORY / "vrfs"
    vrfs.write_text("7 server\n8 gone\n")
    every = transfers(SCRIPTS.values(), CONTENT)
    settings(transfer_idle_limit=1)
    try:
        for number in (8, 9, -1, "x"):
            assert results(every, vrf=number) == [USE] * 6
        assert results(every, vrf=1) == [UNREACHABLE] * 6  # the ordinary network
        assert not any(transfer.target.exists() for transfer in every)
        settings(transfer_idle_limit=10)
        assert results(every, vrf=7) == [DONE] * 6
    finally:
        vrfs.unlink()
    assert all(transfer.target.read_bytes() == CONTENT for transfer in every)
