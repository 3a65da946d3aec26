"""Copies from and to files of the manager, without a file server: the switch reads and writes them
by TFTP at the manager itself."""

import os
import signal
import socket
import stat
import subprocess
import tempfile
import time
from pathlib import Path

import pytest
from command import (
    BUSY, DONE, FAILED, UNREACHABLE, USAGE, config_copy, ended, on_terminal, rows, started,
)
from copy_table import AGENT, run, show, wait_for
from saves import running, startup

SECOND = [*os.environ.get("LAB_AGENTS", "").split(), ""][1]
DIFFERENT = 1
NOBODY = 65534


@pytest.fixture(autouse=True)
def no_row_stays(operator):
    yield
    assert rows(operator) == []


@pytest.fixture
def here(tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    return tmp_path


def leftovers(folder):
    return [path.name for path in folder.iterdir() if path.name.startswith(".")]


@pytest.mark.parametrize("agent", [AGENT, "udp6:[2001:db8::10]", SECOND],
                         ids=["itself", "ipv6", "other"])
def test_a_backup_without_a_file_server(agent, here):
    done = config_copy(agent, "running", "./switch.cfg")
    assert done.status == DONE, done
    assert f"{agent}: running to ./switch.cfg copied in " in done.out and done.err == "", done
    text = (here / "switch.cfg").read_text()
    if agent != SECOND:
        assert text == show("running")
    assert text.endswith("\n") and len(text) > 20
    assert (here / "switch.cfg").stat().st_mode & 0o7777 == 0o600
    assert leftovers(here) == []


def test_unchanged_content_leaves_the_file_alone(here):
    assert config_copy(AGENT, "startup", "a.cfg").status == DONE

    def state():
        status = (here / "a.cfg").stat()
        return status.st_ino, status.st_mtime_ns, status.st_ctime_ns

    before = state()
    again = config_copy("--json", AGENT, "startup", "a.cfg")
    assert again.status == DONE and again.objects()[0]["unchanged"] is True, again
    assert state() == before
    assert "startup to a.cfg unchanged in " in config_copy(AGENT, "startup", "a.cfg").out


def test_standard_output_holds_nothing_but_the_configuration():
    done = config_copy(AGENT, "running", "-")
    assert (done.status, done.out, done.err) == (DONE, show("running"), "")


def test_a_reader_that_has_seen_enough():
    done = subprocess.run(f"config-copy {AGENT} running - | true", shell=True, timeout=30,
                          stderr=subprocess.PIPE, text=True)
    assert (done.returncode, done.stderr) == (0, "")


def test_restore_from_a_file_and_from_standard_input(here, lines_of):
    (here / "new.cfg").write_text(lines_of("vlan 311"))
    assert config_copy(AGENT, "new.cfg", "running").status == DONE
    assert "vlan 311\n" in show("running")
    done = config_copy(AGENT, "-", "running", stdin=lines_of("vlan 312"))
    assert done.status == DONE, done
    assert "vlan 311\n" in show("running") and "vlan 312\n" in show("running")


def test_replace_is_exact_and_save_makes_it_last(here):
    assert config_copy(AGENT, "running", "before.cfg").status == DONE
    assert config_copy(AGENT, "-", "running", stdin="vlan 313\n").status == DONE
    assert "vlan 313\n" in show("running")
    done = config_copy("--replace", "--save", "--json", AGENT, "before.cfg", "running")
    assert done.status == DONE and done.objects()[-1]["saved"] is True, done
    assert show("running") == (here / "before.cfg").read_text()
    assert startup() == running()


def test_a_bad_file_says_its_line_and_is_not_saved(here):
    (here / "bad.cfg").write_text("vlan 314\nvlna 315\n")
    before = startup()
    done = config_copy("--save", AGENT, "bad.cfg", "running")
    assert done.status == FAILED and "line 2" in done.err and "saved" not in done.err, done
    assert "vlan 314\n" not in show("running") and startup() == before


def test_a_difference(here):
    assert config_copy(AGENT, "running", "a.cfg").status == DONE
    same = config_copy("diff", AGENT, "running", "a.cfg")
    assert (same.status, same.out, same.err) == (DONE, "", ""), same
    (here / "a.cfg").write_text((here / "a.cfg").read_text() + "vlan 316\n")
    other = config_copy("diff", AGENT, "running", "a.cfg")
    assert other.status == DIFFERENT and other.err == "", other
    assert other.out.startswith("--- running\n+++ a.cfg\n@@ ") and "\n+vlan 316\n" in other.out
    back = config_copy("diff", "--json", AGENT, "a.cfg", "running")
    assert back.status == DIFFERENT
    [found] = back.objects()
    assert (found["type"], found["added"], found["removed"]) == ("difference", 0, 1), found
    assert config_copy("diff", "-q", AGENT, "running", "a.cfg").out == ""


def test_a_difference_that_can_not_be_seen(here):
    (here / "a.cfg").write_text("vlan 1\n")
    no = config_copy("diff", "-t", "0.3", "-r", "1", "192.0.2.99", "running", "a.cfg")
    assert no.status == UNREACHABLE and "no answer" in no.err, no


def test_a_dry_run_of_a_restore_shows_what_would_change(here):
    (here / "new.cfg").write_text(show("running") + "vlan 317\n")
    done = config_copy("--dry-run", AGENT, "new.cfg", "running")
    assert done.status == DONE and "\n+vlan 317\n" in done.out, done
    assert "; compared with running: 1 line added, 0 removed\n" in done.out
    assert "vlan 317\n" not in show("running")
    replaced = config_copy("--dry-run", "--replace", AGENT, "new.cfg", "running")
    assert "configuration replace" not in replaced.out, replaced


def test_a_dry_run_says_that_a_merged_file_removes_nothing(here):
    count = len(show("running").splitlines())
    text = f"; compared with running: 1 line added, {count} removed"
    stays = " (but a line that the file lacks stays, unless --replace is given)"
    (here / "new.cfg").write_text("vlan 317\n")
    merged = config_copy("--dry-run", AGENT, "new.cfg", "running")
    assert merged.status == DONE and merged.out.endswith(f"{text}{stays}\n"), merged
    replaced = config_copy("--dry-run", "--replace", AGENT, "new.cfg", "running")
    assert replaced.status == DONE and replaced.out.endswith(f"{text}\n"), replaced
    (here / "new.cfg").write_text("configuration replace\nvlan 317\n")
    own_line = config_copy("--dry-run", AGENT, "new.cfg", "running")
    assert own_line.status == DONE and own_line.out.endswith(f"{text}\n"), own_line


def test_a_dry_run_of_a_backup_to_standard_output_says_so(here):
    done = config_copy("--dry-run", AGENT, "running", "-")
    assert done.status == DONE and "would copy running to -" in done.out, done


@pytest.mark.parametrize("closed", ["", "<&-", ">&-", "2>&-", "<&- >&-", ">&- 2>&-",
                                    "<&- >&- 2>&-"])
def test_closed_standard_streams(here, closed):
    """What the command opens must not get their numbers: texts would be written into it."""
    done = subprocess.run(f"config-copy {AGENT} running a.cfg {closed}", shell=True, timeout=30,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, check=False)
    assert (here / "a.cfg").read_text() == show("running")
    assert done.returncode == (FAILED if ">&-" in closed.split() else DONE), done
    assert leftovers(here) == []


def test_a_killed_copy_leaves_no_file(here):
    """Its request expires by itself."""
    for delay in (0.05, 0.1, 0.2, 0.4):
        process = started("--wait-turn", "30", AGENT, "running", "a.cfg")
        time.sleep(delay)
        process.kill()
        ended(process)
    assert {path.name for path in here.iterdir()} <= {"a.cfg"}
    assert config_copy("--wait-turn", "30", AGENT, "running", "a.cfg").status == DONE
    for row in rows_of(AGENT):
        assert config_copy("abort", AGENT, row).status == DONE


def rows_of(agent):
    return [request["index"] for request in config_copy("--json", "list", agent).objects()]


def test_the_receiver_is_killed(here):
    # It ends before or after the command has it ready, and before or after the copy.
    for delay in (0, 0.02, 0.05, 0.1):
        process = started("--wait-turn", "30", AGENT, "running", "a.cfg")
        children = Path(f"/proc/{process.pid}/task/{process.pid}/children")
        wait_for(lambda: children.read_text(), 10, "the receiver")
        receiver = int(children.read_text())
        time.sleep(delay)
        os.kill(receiver, signal.SIGKILL)
        done = ended(process)
        if done.status == DONE:
            assert (here / "a.cfg").read_text() == show("running")
        else:
            text = "config-copy-receiver has ended: it crashed or was killed\n"
            assert done.status == FAILED and done.err.endswith(text), done
        assert leftovers(here) == []


@pytest.mark.parametrize("words, text", [
    (("--hosts", "/dev/zero", "running", "{host}.cfg"),
     "the hosts file /dev/zero can't be read: File too large"),
    (("--password-file", "/dev/zero", AGENT, "running", f"scp://user@{AGENT}/a.cfg"),
     "the password is longer than the "),
    (("@", AGENT), "a profile is written @NAME"),
    (("list", "@nightly"), "a profile comes first: write config-copy @nightly ..."),
])
def test_input_that_is_no_good(here, words, text):
    done = config_copy(*words)
    assert done.status == USAGE and text in done.err and done.err.count("\n") == 1, done


def test_no_standard_input(here):
    done = subprocess.run(f"config-copy {AGENT} - running <&-", shell=True, timeout=30,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, check=False)
    assert (done.returncode, done.stdout) == (USAGE, ""), done
    assert done.stderr == "config-copy: standard input can't be read: Bad file descriptor\n"


def test_a_limit_of_the_size_of_files_leaves_nothing(here):
    """It would end the command with the request on the switch."""
    done = subprocess.run(f"ulimit -f 0; config-copy {AGENT} running a.cfg >out", shell=True,
                          timeout=30, stderr=subprocess.PIPE, text=True, check=False)
    assert done.returncode == FAILED, done
    assert "File too large" in done.stderr, done
    assert [path.name for path in here.iterdir()] == ["out"]


def test_many_agents_with_one_receiver(here):
    (here / "hosts").write_text(f"{AGENT}\n{SECOND}\n")
    (here / "backup").mkdir()
    first = config_copy("--hosts", "hosts", "running", "backup/{host}.cfg")
    assert first.status == DONE and first.out.endswith("2 agents: 2 done\n"), first
    again = config_copy("--hosts", "hosts", "running", "backup/{host}.cfg")
    assert again.out.endswith("2 agents: 2 done (2 unchanged)\n"), again
    assert sorted(path.name for path in (here / "backup").iterdir()) == [
        f"{AGENT}.cfg", f"{SECOND}.cfg"]
    same = config_copy("diff", "--hosts", "hosts", "backup/{host}.cfg", "running")
    assert same.status == DONE and same.out.endswith("2 agents: 2 same\n"), same
    with (here / "backup" / f"{SECOND}.cfg").open("a") as file:
        file.write("vlan 318\n")
    other = config_copy("diff", "--hosts", "hosts", "backup/{host}.cfg", "running")
    assert other.status == DIFFERENT, other
    assert other.out.endswith("2 agents: 1 same, 1 different\n"), other
    differ = f"{SECOND}: backup/{SECOND}.cfg and running differ: 0 lines added, 1 removed"
    assert differ in other.out


def test_two_copies_at_a_time_share_the_port(here):
    both = [started(agent, "running", f"{agent}.cfg") for agent in (AGENT, SECOND)]
    for process in both:
        done = ended(process)
        assert done.status == DONE, done


def test_the_address_at_which_the_switch_reaches_this_machine(here):
    given = config_copy("--json", "--local-address", AGENT, SECOND, "running", "a.cfg")
    assert given.status == DONE and given.objects()[0]["server"] == AGENT, given
    wrong = config_copy("--local-address", "203.0.113.1", SECOND, "running", "b.cfg")
    assert wrong.status == FAILED, wrong
    assert "the file server on this machine (203.0.113.1) did not answer the switch" in wrong.err
    assert "no request of the switch has arrived at this machine" in wrong.err
    other = config_copy("--local-address", "2001:db8::10", SECOND, "running", "b.cfg")
    assert other.status == USAGE and "write both alike" in other.err, other
    assert [path.name for path in here.iterdir()] == ["a.cfg"]


def test_a_port_that_is_taken(here):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as taken:
        taken.bind(("", 69))
        begun = time.monotonic()
        done = config_copy(AGENT, "running", "a.cfg")
    assert done.status == BUSY and "69" in done.err, done
    assert 9 < time.monotonic() - begun < 30
    assert not (here / "a.cfg").exists()


def test_bad_places(here):
    (here / "folder").mkdir()
    folder = config_copy(AGENT, "running", "folder")
    assert folder.status == USAGE and "is a folder or a device" in folder.err, folder
    missing = config_copy(AGENT, "running", "none/a.cfg")
    assert missing.status == FAILED and "its folder does not exist" in missing.err, missing
    assert config_copy(AGENT, "none.cfg", "running").status == USAGE
    full = subprocess.run(f"config-copy {AGENT} running - >/dev/full", shell=True, text=True,
                          stderr=subprocess.PIPE, timeout=30)
    assert full.returncode == FAILED and "standard output can't be written" in full.stderr


@pytest.fixture
def folder_of_nobody():
    with tempfile.TemporaryDirectory(dir="/tmp") as name:
        folder = Path(name)
        os.chown(folder, NOBODY, NOBODY)
        folder.chmod(0o755)
        yield folder


def test_a_folder_of_another_user(here, folder_of_nobody):
    """Root writes there with that user's rights, and follows no link of that user."""
    (here / "own").write_text("root's\n")
    file = folder_of_nobody / "a.cfg"
    file.symlink_to(here / "own")
    done = config_copy(AGENT, "running", file)
    assert done.status == DONE, done
    status = file.lstat()
    assert stat.S_ISREG(status.st_mode) and status.st_uid == NOBODY
    assert file.read_text() == show("running")
    assert (here / "own").read_text() == "root's\n"
    assert [path.name for path in folder_of_nobody.iterdir()] == ["a.cfg"]

    (folder_of_nobody / "link").symlink_to(here)
    outside = config_copy(AGENT, "running", folder_of_nobody / "link" / "own")
    assert outside.status == DONE and (here / "own").read_text() == show("running"), outside


@pytest.mark.parametrize("name, file", [("../../etc/evil", "in/etc-evil"), ("..", "in/{name}"),
                                        (".hidden", "in/hidden")])
def test_a_name_that_tries_to_leave_the_folder(here, own_agents, name, file):
    (agent,) = own_agents(1, ("rwcommunity secret", f"sysName {name}"))
    done = config_copy("-v2c", "-c", "secret", "--json", agent.name, "running", "in/{name}")
    assert done.objects()[0]["to"] == file, done


def test_the_loopback_is_no_address_of_a_file(here, own_agents):
    (agent,) = own_agents(1, ("rwcommunity secret",))
    done = config_copy("-v2c", "-c", "secret", agent.name, "running", "a.cfg")
    assert (done.status, done.out, done.err) == (
        USAGE, "", "config-copy: a switch does not copy files of 127.0.0.1: name the agent by "
        "another of its addresses\n")
    assert list(here.glob("*.cfg")) == []


def test_a_full_disk_leaves_the_old_file(here):
    disk = here / "disk"
    disk.mkdir()
    run("mount", "-t", "tmpfs", "-o", "size=8k", "tmpfs", disk)
    try:
        (disk / "a.cfg").write_text("x" * 4096)
        lines = "".join(f"vlan {number}\n" for number in range(1000, 2200))
        assert config_copy("--replace", AGENT, "-", "running", stdin=lines).status == DONE
        done = config_copy(AGENT, "running", disk / "a.cfg")
        assert done.status == FAILED, done
        assert "No space left on device" in done.err, done
        assert (disk / "a.cfg").read_text() == "x" * 4096
        assert leftovers(disk) == []
    finally:
        run("umount", disk)
        config_copy(AGENT, "startup", "running")


def test_nobody_else_gets_the_file(here):
    """Its name is known to the switch only, and another address does not get it even with it."""
    (here / "new.cfg").write_text("vlan 319\n")
    done = config_copy("--json", AGENT, "new.cfg", "running")
    [copied] = done.objects()
    assert len(copied["file"]) == 40 and copied["server"] == AGENT, copied
    get = subprocess.run(["curl", "--silent", "--max-time", "1",
                          f"tftp://{AGENT}/{copied['file']}"], stdout=subprocess.PIPE, check=False)
    assert get.stdout == b""


def test_an_interruption_leaves_nothing(here):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as taken:
        taken.bind(("", 69))
        process = started(AGENT, "running", "a.cfg")
        time.sleep(0.5)
        process.send_signal(signal.SIGINT)
        assert ended(process).status == -signal.SIGINT
    assert list(here.iterdir()) == []


@pytest.mark.parametrize("plain", [False, True], ids=["colours", "NO_COLOR"])
def test_colours_on_a_terminal_only(here, monkeypatch, plain):
    if plain:
        monkeypatch.setenv("NO_COLOR", "1")
    (here / "a.cfg").write_text(show("running") + "vlan 320\n")
    status, shown, _ = on_terminal("diff", AGENT, "running", "a.cfg")
    assert status == DIFFERENT and "+vlan 320" in shown, shown
    assert ("\033[32m+vlan 320" in shown) != plain, shown
    assert "\033[32m" not in config_copy("diff", AGENT, "running", "a.cfg").out
