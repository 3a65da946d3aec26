"""The nightly backup of a hundred switches, as docs/fleet.md describes it: the lab's switch, 94
simulated agents and five that are silent."""

import os
import re
import signal
import subprocess
import time
from pathlib import Path

import pytest
from copy_table import AGENT, run, show, wait_for

REPOSITORY = Path(__file__).resolve().parents[3]
BACKUP = REPOSITORY / "config-copy/config-copy-backup"
FLEET_AGENT = REPOSITORY / "build/release/bin/bench_fleet_agent"
CONFIGURATION = Path("/etc/config-copy")
SETTINGS = """[defaults]
snmp = -v 2c -c lab -t 0.5 -r 0
# For restores only.
save = yes
replace = yes
[nightly]
hosts = switches
retries = 1
retry-pause = 1
# For runs by hand.
json = yes
[startups]
hosts = switch
from = startup
"""
# A name is data everywhere. These can't be looked up.
ODD = ["we\"i\\rd:x", "$(touch${IFS}x)`id`", "..", "x" * 300, "a',ending=\"done"]
ODD_FILES = ["we-i-rd-x", "touch-IFS-x-id", "..", "x" * 300, "a-ending-done"]
EDGES = [f"edge{number}:1161" for number in range(1, 95)]
DEAD = [f"dead{number}:1161" for number in range(1, 6)]
LISTED = ["core1", *EDGES, *DEAD]


class Fleet:
    def __init__(self, place):
        self.place = place
        self.agents = place / "agents"  # their configurations
        self.state = place / "state"
        self.switches = self.state / "switches"
        for folder in (self.agents, self.state, CONFIGURATION):
            folder.mkdir()
        (CONFIGURATION / "config-copy.conf").write_text(SETTINGS)
        (CONFIGURATION / "config-copy.conf").chmod(0o600)
        (CONFIGURATION / "switch").write_text("core1\n")
        self.process = subprocess.Popen([FLEET_AGENT, "0.1", self.agents],
                                        stdout=subprocess.DEVNULL)

    def end(self):
        self.process.terminate()
        self.process.wait(15)

    @staticmethod
    def list(names):
        quoted = ("'" + name.replace("'", "'\\''") + "'" for name in names)
        (CONFIGURATION / "switches").write_text("".join(f"{name}\n" for name in quoted))

    def change(self, number, name):
        """Gives a simulated agent another configuration."""
        (self.agents / f"10.1.0.{number}").write_text(f"hostname {name}\n")

    def start(self, profile="nightly"):
        return subprocess.Popen([BACKUP, profile], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                text=True, env={**os.environ, "STATE_DIRECTORY": str(self.state)},
                                start_new_session=True)

    def back_up(self, profile="nightly"):
        """(exit status, what is printed, subjects of the commits that were made)"""
        before = self.commits()
        process = self.start(profile)
        printed, _ = process.communicate(timeout=60)
        made = self.commits()
        return process.returncode, printed, made[:len(made) - len(before)]

    def git(self, *words):
        return run("git", "-C", self.switches, *words)

    def commits(self):
        """The subjects, the last one first."""
        if not (self.switches / ".git/refs/heads/main").exists():
            return []
        return self.git("log", "main", "--format=%s").splitlines()

    def files(self):
        return set(self.git("ls-files", "-z").split("\0")) - {""}

    def check(self):
        """The history is whole, and all that was copied is in it."""
        self.git("fsck", "--strict")
        assert self.git("status", "--porcelain", "--untracked-files=all") == ""
        assert not list(self.state.glob(".*"))
        assert not list((self.switches / ".git").rglob("*.lock"))


@pytest.fixture(scope="module")
def fleet(tmp_path_factory):
    run("ip", "route", "add", "local", "10.0.0.0/8", "dev", "lo")
    with open("/etc/hosts", "a", encoding="ascii") as hosts:
        hosts.write(f"{AGENT} core1\n")
        hosts.writelines(f"10.1.0.{number} edge{number}\n" for number in range(1, 95))
        hosts.writelines(f"10.128.0.{number} dead{number}\n" for number in range(1, 6))
    made = Fleet(tmp_path_factory.mktemp("fleet"))
    made.list(LISTED)
    yield made
    made.end()
    run("ip", "route", "del", "local", "10.0.0.0/8", "dev", "lo")


def file_of(name):
    return name.replace(":", "-") + ".cfg"


def test_a_hundred_switches(fleet):
    status, printed, subjects = fleet.back_up()
    assert status == 4, printed
    for name in DEAD:
        assert re.search(rf"^config-copy: no answer from {name} in .* \(attempt 2\)$", printed,
                         re.MULTILINE), printed
    assert "\n100 agents: 95 done, 5 not reachable\n" in printed
    assert printed.count("\n") == 7 and subjects == ["nightly: 95 switches"]
    assert fleet.files() == {file_of(name) for name in LISTED if name not in DEAD}
    assert fleet.git("show", "HEAD:core1.cfg") == show("running")
    assert fleet.git("show", "HEAD:edge7-1161.cfg") == "hostname 10.1.0.7\n"
    failed = [line.split()[0] for line in (fleet.state / "failed-hosts").read_text().splitlines()]
    assert failed == DEAD
    fleet.check()


def test_only_changes_are_committed(fleet):
    fleet.list(LISTED[:95])  # the others take time
    status, printed, subjects = fleet.back_up()
    assert (status, printed, subjects) == (0, "95 agents: 95 done (95 unchanged)\n", [])
    for number in (3, 4, 50):
        fleet.change(number, "changed")
    status, printed, subjects = fleet.back_up()
    assert subjects == ["nightly: 3 switches"], printed
    assert fleet.git("log", "-1", "--format=%b").split("\n") == [
        "changed: edge3-1161", "changed: edge4-1161", "changed: edge50-1161", "", ""]
    fleet.check()


def test_startup_configurations_by_a_profile(fleet, startup, tmp_path):
    startup(b"hostname saved\n")
    printed = subprocess.run([BACKUP, "startups"], stdout=subprocess.PIPE, text=True, check=True,
                             env={**os.environ, "STATE_DIRECTORY": str(tmp_path)}).stdout
    assert printed.startswith("1 agent: 1 done\nstartups: new: core1, committed as ")
    assert (tmp_path / "switches/core1.cfg").read_text() == "hostname saved\n"


def test_switches_that_are_no_longer_listed(fleet):
    """Their files leave the folder, the history keeps them."""
    live = ["core1", *EDGES[2:]]
    fleet.list(live)
    fleet.change(50, "changed again")
    status, printed, subjects = fleet.back_up()
    assert status == 0, printed
    assert subjects == [
        "nightly: 2 switches are no longer listed", "nightly: changed: edge50-1161"
    ], printed
    assert fleet.git("log", "-1", "--format=%b").split("\n") == [
        "no longer listed: edge1-1161", "no longer listed: edge2-1161", "", ""]
    assert fleet.files() == {file_of(name) for name in live}
    assert fleet.git("show", "HEAD~1:edge1-1161.cfg") == "hostname 10.1.0.1\n"
    fleet.check()


def test_a_hosts_file_that_is_not_whole_removes_nothing(fleet):
    before = fleet.files()
    for names, reason in ((["core1"], "92 of 93 switches in "), ([], " lists no agent: ")):
        fleet.list(names)
        status, printed, subjects = fleet.back_up()
        assert status != 0 and subjects == [] and reason in printed, printed
    (CONFIGURATION / "switches").unlink()
    status, printed, subjects = fleet.back_up()
    assert status == 2 and subjects == [] and " can't be read: " in printed, printed
    assert fleet.files() == before
    assert all((fleet.switches / name).exists() for name in before)
    fleet.check()


def test_odd_names_are_data(fleet):
    """A switch keeps its file as long as it is listed, whatever it is called."""
    fleet.list([*LISTED[:95], *ODD])
    for name in ODD_FILES[:-2]:
        (fleet.switches / f"{name}.cfg").write_text("a configuration\n")
    stray = "-$(touch x)`id`\" #\n"
    (fleet.switches / f"{stray}.cfg").write_text("a configuration\n")
    status, printed, subjects = fleet.back_up()
    assert status != 0 and f"no longer listed: {stray}" in fleet.git("log", "-1", "--format=%B")
    assert subjects[1] == "nightly: 6 switches", printed
    live = {file_of(name) for name in LISTED[:95]}
    assert fleet.files() == live | {f"{name}.cfg" for name in ODD_FILES[:-2]}
    assert not (fleet.switches / "x").exists()
    fleet.check()


def test_a_run_that_is_killed_at_any_time(fleet):
    """The next one does the rest, and no lock stays."""
    fleet.list(LISTED[:95])
    began = time.monotonic()
    status, printed, _ = fleet.back_up()
    took = time.monotonic() - began
    assert status == 0, printed
    for number in range(4):
        for edge in range(1, 95):
            fleet.change(edge, f"number{number}")
        process = fleet.start()
        time.sleep(took * (0.4 + 0.15 * number))
        os.killpg(process.pid, signal.SIGKILL)
        process.communicate()
    # The worst case: git was killed while it held these.
    for lock in ("index.lock", "HEAD.lock", "refs/heads/main.lock"):
        (fleet.switches / ".git" / lock).touch()
    (fleet.state / ".runs").touch()
    status, printed, _ = fleet.back_up()
    assert status == 0, printed
    assert fleet.git("show", "HEAD:edge7-1161.cfg") == "hostname number3\n"
    fleet.check()


def test_a_lock_of_somebody_else_stays(fleet):
    fleet.change(7, "locked")
    lock = fleet.switches / ".git/index.lock"
    lock.touch()
    status, printed, subjects = fleet.back_up()
    assert status == 1 and subjects == [] and "is not committed: fatal: " in printed, printed
    assert lock.exists()
    lock.unlink()
    status, printed, subjects = fleet.back_up()
    assert (status, subjects) == (0, ["nightly: changed: edge7-1161"]), printed
    fleet.check()


def test_what_an_administrator_does_there(fleet):
    """An old version that is looked at is put back, and files of others are left alone."""
    newest = fleet.git("show", "HEAD:edge7-1161.cfg")
    (fleet.switches / "README").write_text("ours\n")
    fleet.git("add", "--force", "README")
    fleet.git("commit", "--quiet", "--message", "with a note")
    fleet.git("checkout", "--quiet", "HEAD~3")
    fleet.list(["dead1:1161", *LISTED[:7], *LISTED[8:95]])  # one is silent now, one is gone
    status, printed, subjects = fleet.back_up()
    assert status == 4 and subjects == ["nightly: no longer listed: edge7-1161"], printed
    assert fleet.git("symbolic-ref", "HEAD") == "refs/heads/main\n"
    assert fleet.git("log", "-2", "--format=%s").endswith("\nwith a note\n")
    assert fleet.git("show", "HEAD~1:edge7-1161.cfg") == newest
    assert (fleet.switches / "README").read_text() == "ours\n"
    fleet.list(LISTED[:95])
    fleet.check()


def test_two_runs_at_a_time(fleet):
    first = fleet.start()
    wait_for((fleet.state / ".runs").exists)
    status, printed, subjects = fleet.back_up()
    assert status == 1 and subjects == [], printed
    assert printed.startswith("config-copy-backup: another backup of nightly is running"), printed
    printed, _ = first.communicate(timeout=60)
    assert first.returncode == 0, printed
    fleet.check()
