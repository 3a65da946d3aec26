"""Every kind of copy between FRR, a file server and the startup configuration."""

import os

import vty
from copy_table import (
    FABRIC_STARTUP, GENERAL, LOCAL_STARTUP_TO_RUNNING, SERVER4, SERVER_ROOT, STARTUP,
    STATE_SUCCESSFUL, Request, download, lab_ctl, run, serve, upload,
)
from protocols import EVERY_PROTOCOL
from saves import save

PEER = "router bgp 65001\n neighbor 192.0.2.77 remote-as 65002\nexit\n"
ROUTE = "ip route 10.20.0.0/16 blackhole\n"


@EVERY_PROTOCOL
def test_backup_and_restore(operator, protocol):
    """A backup is what FRR shows; restored with one line in front it is exactly what FRR runs."""
    assert vty.configure(PEER) == (0, "")
    whole = vty.running()
    Request(operator).create(*upload(SERVER4, "backup.cfg", protocol=protocol)).copied()
    backup = (SERVER_ROOT / "backup.cfg").read_text()
    assert backup == whole
    serve("merged.cfg", ROUTE)
    Request(operator).create(*download(SERVER4, "merged.cfg", protocol=protocol)).copied()
    assert ROUTE in vty.running() and "remote-as 65002" in vty.running()
    serve("restored.cfg", f"configuration replace\n{backup}")
    Request(operator).create(*download(SERVER4, "restored.cfg", protocol=protocol)).copied()
    assert vty.running() == whole


@EVERY_PROTOCOL
def test_startup_configuration(operator, protocol):
    Request(operator).create(*upload(SERVER4, "startup.cfg", STARTUP, protocol)).copied()
    assert (SERVER_ROOT / "startup.cfg").read_bytes() == vty.FILE.read_bytes()


def test_save_survives_a_restart(operator):
    """FRR's owner and mode stay; the former file is there under the name that FRR gives it."""
    before, status = vty.startup(), os.stat(vty.FILE)
    assert vty.configure(PEER + ROUTE) == (0, "")
    whole = vty.running()
    save(operator).copied()
    assert vty.startup() == whole
    now = os.stat(vty.FILE)
    assert (now.st_uid, now.st_gid, now.st_mode) == (status.st_uid, status.st_gid, status.st_mode)
    assert vty.FILE.with_suffix(".conf.sav").read_text() == before
    vty.restart()
    assert vty.running() == whole


def test_startup_to_running(operator):
    assert vty.configure(ROUTE) == (0, "")
    save(operator).copied()
    assert vty.configure(f"no {ROUTE}") == (0, "")
    assert ROUTE not in vty.running()
    Request(operator).create(*LOCAL_STARTUP_TO_RUNNING).copied()
    assert ROUTE in vty.running()


def test_save_of_the_fabric(operator):
    """The other switch is of the embedded kind."""
    run("lab-ctl", "switch-exec", "2", "sh", "-c",
        "echo vlan 77 >/tmp/vlan && cmdshell -c 'configure /tmp/vlan'")
    assert vty.configure(ROUTE) == (0, "")
    request = save(operator, FABRIC_STARTUP)
    request.activate()
    assert request.finished() == (STATE_SUCCESSFUL, GENERAL)
    assert vty.startup() == vty.running()
    assert "vlan 77" in run("lab-ctl", "switch-exec", "2", "cmdshell", "-c", "show startup-config")


def test_shell_without_the_system_manager():
    """An administrator's shell saves by itself then."""
    assert vty.configure(ROUTE) == (0, "")
    lab_ctl("stop-system-manager")
    run("cmdshell", "-c", "copy running-config startup-config")
    lab_ctl("start-system-manager")
    assert vty.startup() == vty.running()


def test_statements_that_frr_shows_in_another_form():
    """Abbreviated, defaults, removals, or undone by a later line: all of them are applied."""
    for text in (
            "rou bgp 65001\n neighbor 192.0.2.77 remote 65002\n neighbor 192.0.2.77 descr me\n",
            "ip prefix-list A permit 10.0.0.0/8\n",
            "ip route 10.1.2.3/8 blackhole\n",
            f"{PEER}router bgp 65001\n address-family ipv4 unicast\n"
            "  neighbor 192.0.2.77 activate\n",
            "no ip route 10.99.0.0/16 blackhole\n",
            f"{ROUTE}no {ROUTE}",
            f"no {ROUTE}{ROUTE}",
            "interface mgmt0\n no shutdown\n description x\nexit\ninterface lo\n no description\n",
            f"! a comment\n\n{ROUTE}end\n{PEER}",
            ROUTE.replace("\n", "\r\n") * 2,
            "no ipv6 forwarding\n",
            f"ip forwarding\n{ROUTE}",
            ""):
        assert vty.configure(text) == (0, ""), text
