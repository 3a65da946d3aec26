"""At any instant the startup configuration is the old one or the new one."""

import os
import shlex
import subprocess
import threading
from pathlib import Path

import pytest
import vty
from copy_table import STATE_DIRECTORY, run

LINES = "".join(f"ip route 10.30.{i // 256}.{i % 256}/32 blackhole\n" for i in range(2000))


def test_readers_during_saves():
    """FRR's own shell moves the old file away and writes the new one line by line, which this test
    sees too; our readers wait, or see the old one, even if the saving process is killed."""
    old = vty.startup()
    assert vty.configure(LINES) == (0, "")
    new = vty.running()
    file_seen, shown, over = set(), set(), threading.Event()

    def watch():
        while not over.is_set():
            try:
                file_seen.add(vty.startup())
            except FileNotFoundError:
                file_seen.add(None)

    watcher = threading.Thread(target=watch)
    watcher.start()
    try:
        for _ in range(3):
            saving = subprocess.Popen([*vty.AS_AGENT, "cmdshell", "-c",
                                       "copy running-config startup-config"])
            while saving.poll() is None:
                # killed when FRR has begun to write
                if (STATE_DIRECTORY / "frr-save").exists() and (
                        not vty.FILE.exists() or vty.startup() not in (old, new)):
                    saving.kill()
                shown.add(vty.cmdshell("show startup-config"))
            for _ in range(3):
                shown.add(vty.cmdshell("show startup-config"))
            vty.cmdshell("copy running-config startup-config")
            assert vty.startup() == new
            vty.FILE.write_text(old)
            shown.add(vty.cmdshell("show startup-config"))
    finally:
        over.set()
        watcher.join()
    assert shown <= {(0, old), (0, new)}
    assert (0, old) in shown and (0, new) in shown
    assert file_seen - {old, new}, "FRR writes the file in one step now: simplify"


def start_frr():
    """As frr.service does it: first the drop-in's command, as root."""
    drop_in = Path(__file__).resolve().parents[3] / "platform/host/systemd/frr.conf"
    (command,) = [line.removeprefix("ExecStartPre=-") for line in drop_in.read_text().splitlines()
                  if line.startswith("ExecStartPre=-")]
    program, *arguments = shlex.split(command)
    printed = run(Path(program).name, *arguments)
    vty.restart()
    return printed


@pytest.mark.parametrize("left", [None, "", "frr version 8.4.4\nfrr def"])
def test_power_failure_in_a_save(left):
    """FRR starts with the configuration before the save, all of it."""
    assert vty.configure("ip route 10.40.0.0/16 blackhole\n") == (0, "")
    assert vty.cmdshell("copy running-config startup-config") == (0, "")
    old, status = vty.startup(), os.stat(vty.FILE)
    assert vty.configure("ip route 10.41.0.0/16 blackhole\n") == (0, "")
    mark = STATE_DIRECTORY / "frr-save"
    mark.write_text(f"{len(old)}\n{old}{vty.running()}")
    owner = os.stat(STATE_DIRECTORY)
    os.chown(mark, owner.st_uid, owner.st_gid)
    run(vty.INIT, "stop")
    vty.FILE.rename(f"{vty.FILE}.sav")
    if left is not None:
        vty.FILE.write_text(left)  # root's, as FRR begins it
    assert "a save was cut off" in start_frr()
    assert vty.running() == vty.startup() == old
    now = os.stat(vty.FILE)
    assert (now.st_uid, now.st_gid, now.st_mode) == (status.st_uid, status.st_gid, status.st_mode)
    assert not mark.exists()
    assert start_frr() == ""
    assert vty.running() == old


def test_save_that_was_cut_off():
    """What a power failure in the middle of FRR's writing leaves."""
    old = vty.startup()
    assert vty.configure("ip route 10.40.0.0/16 blackhole\n") == (0, "")
    new = vty.running()
    mark = STATE_DIRECTORY / "frr-save"
    mark.write_text(f"{len(old)}\n{old}{new}")
    owner = os.stat(STATE_DIRECTORY)
    os.chown(mark, owner.st_uid, owner.st_gid)
    for content, expected in ((new[:100], old), ("", old), (old, old), (new, new),
                              ("log syslog\n", "log syslog\n")):
        vty.FILE.write_text(content)
        assert vty.cmdshell("show startup-config") == (0, expected)
    vty.FILE.write_text(new[:100])
    assert vty.cmdshell("copy running-config startup-config") == (0, "")
    assert vty.startup() == new
    assert not mark.exists()
    run("cmdshell", "-c", "show startup-config")
