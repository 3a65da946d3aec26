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


def test_disk_full():
    """FRR says that it has saved."""
    old, folder, small = vty.startup(), vty.FILE.parent, Path("/tmp/small")
    assert vty.configure(LINES) == (0, "")
    status = os.stat(folder)
    vty.FILE.with_suffix(".conf.sav").unlink(missing_ok=True)  # of any size
    small.mkdir()
    run("mount", "-t", "tmpfs", "-o", f"size=48k,uid={status.st_uid},gid={status.st_gid}", "none",
        small)
    run("cp", "-a", f"{folder}/.", small)
    run("mount", "--bind", small, folder)
    try:
        failed, output = vty.cmdshell("copy running-config startup-config")
        assert failed and f"FRR has written only a part of {vty.FILE}; the former" in output
        assert vty.startup().startswith("frr version "), "FRR writes a file of another sort"
        assert vty.cmdshell("show startup-config") == (0, old)
    finally:
        run("umount", folder)
        run("umount", small)
        small.rmdir()
    assert vty.cmdshell("copy running-config startup-config") == (0, "")
    assert vty.startup() == vty.running()


def frr_writes():
    try:
        return vty.FILE.stat().st_uid == 0
    except FileNotFoundError:  # the former file is away already
        return True


def test_save_beside_one_of_its_own_shell():
    """FRR refuses the second one of two at the same time."""
    assert vty.configure(LINES) == (0, "")
    for _ in range(5):
        other = subprocess.Popen(["vtysh", "-c", "write integrated"], stdout=subprocess.PIPE)
        while other.poll() is None and not frr_writes():
            pass
        assert vty.cmdshell("copy running-config startup-config") == (0, "")
        assert "[OK]" in other.communicate()[0].decode()
        assert vty.startup() == vty.running()


def test_file_that_frr_has_not_finished():
    """It is root's. How many lines it has, and whether the last one looks like the end, does not
    matter."""
    old = vty.startup()
    assert vty.configure("router bgp 65001\nexit\n" + LINES) == (0, "")
    seen, over = set(), threading.Event()

    def watch():
        while not over.is_set():
            try:
                with vty.FILE.open() as file:
                    is_open = os.fstat(file.fileno()).st_uid == 0
                    seen.add((is_open, file.read()))
            except FileNotFoundError:
                pass

    watcher = threading.Thread(target=watch)
    watcher.start()
    vty.vtysh("write integrated")
    over.set()
    watcher.join()
    parts = {text for is_open, text in seen if is_open}
    assert parts, "FRR does not write as root now: find another sign"
    assert {text for is_open, text in seen if not is_open} <= {old, vty.running()}


def start_frr():
    """As frr.service does it: first the drop-in's command, as root."""
    drop_in = Path(__file__).resolve().parents[3] / "platform/host/systemd/frr.conf"
    (command,) = [line.removeprefix("ExecStartPre=-") for line in drop_in.read_text().splitlines()
                  if line.startswith("ExecStartPre=-")]
    program, *arguments = shlex.split(command)
    printed = run(Path(program).name, *arguments)
    vty.restart()
    return printed


@pytest.mark.parametrize("left", [None, "", "frr version 8.4.4\nfrr defaults traditional\n"])
@pytest.mark.parametrize("newer", ["", "the new text, which earlier versions kept"])
def test_power_failure_in_a_save(left, newer):
    """FRR starts with the configuration before the save, all of it."""
    assert vty.configure("ip route 10.40.0.0/16 blackhole\n") == (0, "")
    assert vty.cmdshell("copy running-config startup-config") == (0, "")
    old, status = vty.startup(), os.stat(vty.FILE)
    assert vty.configure("ip route 10.41.0.0/16 blackhole\n") == (0, "")
    mark = STATE_DIRECTORY / "frr-save"
    mark.write_text(f"{len(old)}\n{old}{newer}")
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
    mark.write_text(f"{len(old)}\n{old}")
    owner = os.stat(STATE_DIRECTORY)
    os.chown(mark, owner.st_uid, owner.st_gid)
    for content, expected in ((new[:100], old), ("", old), (old, old), (new, new),
                              (new[:100] + "\0" * 100, old), ("log syslog\n", "log syslog\n")):
        vty.FILE.write_text(content)
        assert vty.cmdshell("show startup-config") == (0, expected)
    status = os.stat(vty.FILE)
    vty.FILE.write_text(new)
    os.chown(vty.FILE, 0, 0)  # FRR has not finished it
    assert vty.cmdshell("show startup-config") == (0, old)
    os.chown(vty.FILE, status.st_uid, status.st_gid)
    vty.FILE.write_text(new[:100])
    assert vty.cmdshell("copy running-config startup-config") == (0, "")
    assert vty.startup() == new
    assert not mark.exists()
    run("cmdshell", "-c", "show startup-config")
