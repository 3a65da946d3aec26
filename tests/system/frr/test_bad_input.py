"""What can go wrong between the agent and FRR: one reason in words, with the row's cause, in the
lines of the last copies and in the log, and FRR as before."""

import contextlib
import os
import signal
import subprocess
from pathlib import Path

import pytest
import vty
from copy_table import (
    BAD_FILE, BAD_LINE, GENERAL, LOCAL_STARTUP_TO_RUNNING, SERVER4, SERVER_ROOT, STATE_DIRECTORY,
    STATE_FAILED, STATE_SUCCESSFUL, History, Request, download, run, serve, upload, wait_for,
)
from saves import DAEMON_LOG, SYSTEM_MANAGER_FAILED, save

SETTINGS = Path("/lab/switch1/platform.conf")
ROUTE = "ip route 10.20.0.0/16 blackhole\n"
BGP = "router bgp 65001\n neighbor 192.0.2.77 remote-as 65002\nexit\n"


def last_copy():
    return run("cmdshell", "-c", "show copies").splitlines()[0]


def failed_download(operator, text, cause=BAD_LINE):
    """The reason of a download that fails."""
    serve("bad.cfg", text)
    history = History()
    request = Request(operator).create(*download(SERVER4, "bad.cfg"))
    assert request.fails(30) == cause
    reason = last_copy().partition(' reason="')[2].partition('"')[0]
    assert reason
    assert history.has(reason), "not in the log"
    return reason


@contextlib.contextmanager
def settings(text):
    before = SETTINGS.read_text()
    SETTINGS.write_text(before + text)
    try:
        yield
    finally:
        SETTINGS.write_text(before)


@pytest.fixture
def program():
    """Puts a script in the place of FRR's shell."""
    file = Path("/tmp/program")

    @contextlib.contextmanager
    def put(script, name="frr_vtysh", more=""):
        file.write_text(f"#!/bin/sh\n{script}\n")
        file.chmod(0o755)
        with settings(f"{name} = {file}\n{more}"):
            yield

    yield put
    file.unlink(missing_ok=True)


@pytest.mark.parametrize("text, reason", [
    ("frobnicate 1\n", "line 1: Unknown command: frobnicate 1"),
    (f"{ROUTE}ip route 10.0.0.0/33 blackhole\n{BGP}",
     "line 2: Unknown command: ip route 10.0.0.0/33 blackhole"),
    (f"{ROUTE}router bgp 65001\n neighbor NOBODY description x\n",
     "line 3: Specify remote-as or peer-group commands first: neighbor NOBODY description x"),
    (f"{ROUTE}router ospf\n ospf router-id 192.0.2.1\n",
     "line 2: ospfd does not run, so FRR has ignored 'router ospf'"),
    ("interface mgmt0\n description x\n ip ospf cost 10\n",
     "line 3: ospfd does not run, so FRR has ignored 'ip ospf cost 10'"),
    ("hostname other\n",
     "line 1: FRR's shell keeps 'hostname other' for itself, so it has no effect"),
    (f"configuration replace\n{ROUTE}frobnicate 1\n", "line 3: Unknown command: frobnicate 1"),
    (f"{ROUTE}! {'x' * 5000}\n", "line 2: longer than 4000 octets"),
    (f"{ROUTE}do write file\n", "line 2: Unknown command: do write file"),
    ("ip route 10.0.0.0/8\n", "line 1: Command incomplete: ip route 10.0.0.0/8"),
    (f"{BGP}exit\nclear bgp *\n", "an 'exit' too many: it leaves the configuration mode"),
    (f"{BGP}exit\nclear bgp *\nconf t\n{ROUTE}",
     "line 6: 'conf' is a command of FRR's shell, not a statement of a configuration"),
    (f"configuration replace\n{ROUTE}router ospf\n ospf router-id 192.0.2.1\n",
     "line 3: ospfd does not run, so FRR has ignored 'router ospf'"),
])
def test_text_that_frr_does_not_take(operator, device_unchanged, text, reason):
    assert failed_download(operator, text) == reason


@pytest.mark.parametrize("before", ["", "exit\n", "router bgp 65001\n"])
def test_text_that_would_overwrite_a_file(operator, device_unchanged, before):
    """FRR's shell does so already when it checks a text."""
    file = STATE_DIRECTORY / "precious"
    file.write_text("precious")
    file.chmod(0o666)
    reason = failed_download(operator, f"{before}output file {file}\n")
    assert reason.endswith("'output' is a command of FRR's shell, "
                           "not a statement of a configuration")
    assert file.read_text() == "precious"
    file.unlink()


def test_text_that_is_none(operator, device_unchanged):
    reason = failed_download(operator, f"{ROUTE}\0\n", BAD_FILE)
    assert reason == "line 2: a control character, so this is not a configuration text"


def test_replacement_that_frr_takes_in_part(operator, device_unchanged):
    text = f"configuration replace\n{vty.running()}{BGP}router bgp 65003\n"
    reason = failed_download(operator, text)
    assert reason == ("FRR can't run exactly this text: it does not take 'router bgp 65003': "
                      "BGP is already running; AS is 65001: router bgp 65003")


DAEMONS = {
    "ospfd": ("router ospf", "interface lo\n ip ospf area 0"),
    "ospf6d": ("router ospf6", "interface lo\n ipv6 ospf6 cost 7"),
    "ripd": ("router rip", "key chain K", "interface lo\n ip rip split-horizon poisoned-reverse"),
    "ripngd": ("router ripng",),
    "isisd": ("router isis 1", "interface lo\n ip router isis 1",
              "interface lo\n isis circuit-type level-1"),
    "fabricd": ("router openfabric 1", "interface lo\n openfabric metric 3"),
    "eigrpd": ("router eigrp 1",),
    "babeld": ("router babel", "interface lo\n babel wired"),
    "ldpd": ("mpls ldp",),
    "pbrd": ("pbr-map P seq 1", "interface lo\n pbr-policy P", "nexthop-group N"),
    "bfdd": ("bfd",),
    "pathd": ("segment-routing",),
    "pimd": ("ip msdp timers 10 30", "interface lo\n ip pim", "interface lo\n ip igmp"),
    "pim6d": ("interface lo\n ipv6 mld", "interface lo\n ipv6 pim"),
    "vrrpd": ("interface lo\n vrrp 1",),
    "nhrpd": ("interface lo\n ip nhrp network-id 1",),
}


def test_statements_of_daemons_that_do_not_run(device_unchanged):
    """FRR's shell takes them without a word, and drops them."""
    for daemon, texts in DAEMONS.items():
        for text in texts:
            status, output = vty.configure(f"{text}\n")
            words = text.splitlines()[-1].strip()
            assert status == 1, text
            assert f"{daemon} does not run, so FRR has ignored '{words}'" in output


def test_statements_that_go_to_several_daemons(device_unchanged):
    """Of those that go to zebra too, FRR shows only the block without bgpd."""
    disable("bgpd")
    try:
        for text in ("route-map R permit 10\n set local-preference 200\n",
                     "route-map R permit 10\n match as-path A\n", "debug bgp updates\n",
                     "bgp as-path access-list A permit .*\n", "router bgp 65001\n"):
            status, output = vty.configure(text)
            words = text.splitlines()[-1].strip()
            assert (status, "bgpd does not run, so FRR has ignored" in output) == (1, True), text
            assert f"'{words}'" in output
    finally:
        enable("bgpd")


def disable(daemon):
    change_daemons(f"{daemon}=yes", f"{daemon}=no")
    wait_for(lambda: set(vty.states()) == {*vty.DAEMONS} - {daemon}, what="FRR without it")


def enable(daemon):
    change_daemons(f"{daemon}=no", f"{daemon}=yes")
    wait_for(vty.all_up, what="FRR")


def change_daemons(before, after):
    file = vty.FILE.with_name("daemons")
    file.write_text(file.read_text().replace(before, after))
    subprocess.run([vty.INIT, "restart"], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                   stderr=subprocess.DEVNULL, check=True)


def test_frr_down(operator):
    run(vty.INIT, "stop")
    for columns in (upload(SERVER4, "never.cfg"), download(SERVER4, "there.cfg")):
        serve("there.cfg", ROUTE)
        request = Request(operator).create(*columns)
        request.activate()
        assert request.finished()[0] == STATE_FAILED
        assert "FRR does not run, or this user is not in the group frrvty" in last_copy()
    assert not (SERVER_ROOT / "never.cfg").exists()
    before, logged = vty.startup(), len(DAEMON_LOG.read_text())
    assert save(operator).fails() == SYSTEM_MANAGER_FAILED
    assert "FRR does not run" in DAEMON_LOG.read_text()[logged:]
    assert vty.startup() == before


@pytest.mark.parametrize("daemon", ["bgpd", "watchfrr"])
def test_daemon_down(operator, daemon):
    """A backup without the statements of a daemon that does not answer would look like a whole
    one; so would a save."""
    assert vty.configure(BGP) == (0, "")
    os.kill(vty.pid(daemon), signal.SIGKILL)
    wait_for(lambda: states_without(daemon), what="watchfrr's word")
    reason = {"bgpd": "FRR's bgpd does not work: watchfrr says Down",
              "watchfrr": "watchfrr is not running"}[daemon]
    before = vty.startup()
    serve("there.cfg", ROUTE)
    for columns in (upload(SERVER4, "never.cfg"), download(SERVER4, "there.cfg")):
        assert Request(operator).create(*columns).fails() in (GENERAL, BAD_LINE)
        assert reason in last_copy()
    assert not (SERVER_ROOT / "never.cfg").exists()
    assert save(operator).fails() == SYSTEM_MANAGER_FAILED
    assert vty.startup() == before
    vty.restart()


def states_without(daemon):
    states = vty.states()
    return states.get("bgpd") == "Down" if daemon == "bgpd" else not states


def test_daemon_that_hangs(operator):
    with settings("device_time_limit = 1\n"):
        os.kill(vty.pid("bgpd"), signal.SIGSTOP)
        try:
            reason = failed_download(operator, ROUTE)
        finally:
            os.kill(vty.pid("bgpd"), signal.SIGCONT)
    assert "did not end within 1 second and was killed" in reason


NO_GROUPS = ("/usr/bin/vtysh: this user is not in the groups frr and frrvty: install "
             "config-copy-mib-frr")


@pytest.mark.parametrize("command, reason", [
    ("show running-config", NO_GROUPS),
    ("configure /tmp/any.cfg", NO_GROUPS),
    ("show startup-config", f"this user may not read {vty.FILE}: install config-copy-mib-frr, or "
                            "add it to the group frr"),
])
def test_user_outside_the_groups(device_unchanged, command, reason):
    Path("/tmp/any.cfg").write_text(ROUTE)
    done = subprocess.run(["setpriv", "--reuid=Debian-snmp", "--regid=Debian-snmp",
                           "--clear-groups", "cmdshell", "-c", command],
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    assert done.returncode == 1
    assert done.stdout.endswith(f": {reason}\n") and len(done.stdout.splitlines()) == 1


def test_user_outside_of_one_group(device_unchanged):
    """The group that opens the daemons' sockets."""
    only_frr = ["setpriv", "--reuid=Debian-snmp", "--regid=Debian-snmp", "--groups=frr"]
    done = subprocess.run([*only_frr, "cmdshell", "-c", "show running-config"],
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    assert "FRR does not run, or this user is not in the group frrvty" in done.stdout


@pytest.mark.parametrize("script, reason", [
    ("sleep 1000 & sleep 1000", "did not end within 1 second and was killed"),
    ("kill -KILL $$", "signal 9 ended it"), ("exit 3", "status 3"),
    ("echo the reason >&2; exit 1", "the reason"), ("head -c 300 /dev/urandom", "no whole running"),
    ("yes", "octets and was killed"), ("true", "no whole running"),
    ("echo 'frr version 8'", "no whole running"),
])
def test_program_that_fails(operator, device_unchanged, program, script, reason):
    with program(script, more="device_time_limit = 1\n" if "sleep" in script else ""):
        request = Request(operator).create(*upload(SERVER4, "never.cfg"))
        request.activate()
        assert request.finished(60)[0] == STATE_FAILED
        assert reason in last_copy()
    assert not (SERVER_ROOT / "never.cfg").exists()
    assert [name for name in os.listdir(STATE_DIRECTORY) if name.startswith("frr")] == []


def test_program_that_is_missing(operator, device_unchanged):
    for name, text in (("frr_vtysh", ROUTE),
                       ("frr_reload", f"configuration replace\n{vty.running()}{ROUTE}")):
        with settings(f"{name} = /nonexistent\n"):
            assert (f"{name} = /nonexistent: must begin with the absolute path of a program that "
                    "exists" in failed_download(operator, text))


@pytest.mark.parametrize("script", [
    "exit 1", "echo; echo Lines To Delete; echo ===; echo no log syslog informational"])
def test_difference_that_is_wrong(operator, device_unchanged, program, script):
    """It never empties FRR."""
    with program(script, "frr_reload"):
        failed_download(operator, f"configuration replace\n{vty.running()}{ROUTE}")


def test_startup_configuration_that_is_missing(operator):
    text = vty.FILE.read_bytes()
    status = os.stat(vty.FILE)
    vty.FILE.unlink()
    try:
        request = Request(operator).create(*LOCAL_STARTUP_TO_RUNNING)
        request.activate()
        assert request.finished()[0] == STATE_FAILED
        assert cmdshell_says("show startup-config", "there is no startup configuration")
    finally:
        vty.FILE.write_bytes(text)
        os.chown(vty.FILE, status.st_uid, status.st_gid)
        vty.FILE.chmod(status.st_mode & 0o7777)


def cmdshell_says(command, text):
    status, output = vty.cmdshell(command)
    return status == 1 and text in output


def test_save_that_frr_does_not_do(operator, program):
    """It says so instead of success."""
    assert vty.configure(ROUTE) == (0, "")
    before = vty.startup()
    with program('sed -u /^write/d | vtysh "$@"'):
        logged = len(DAEMON_LOG.read_text())
        assert save(operator).fails() == SYSTEM_MANAGER_FAILED
    assert (f"FRR has not saved {vty.FILE}: watchfrr does not say that it has"
            in DAEMON_LOG.read_text()[logged:])
    assert vty.startup() == before
    assert not (STATE_DIRECTORY / "frr-save").exists()
    for _ in range(2):
        assert save(operator).activate().finished() == (STATE_SUCCESSFUL, GENERAL)
        assert vty.startup() == vty.running()
