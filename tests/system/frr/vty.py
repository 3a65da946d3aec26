"""FRR as an operator sees it at its own shell, and as the agent's user sees it through ours."""

import subprocess
from pathlib import Path

from copy_table import run, wait_for

FILE = Path("/etc/frr/frr.conf")
AS_AGENT = ("setpriv", "--reuid=Debian-snmp", "--regid=Debian-snmp", "--init-groups")
INIT = "/usr/lib/frr/frrinit.sh"
DAEMONS = ("zebra", "bgpd", "staticd")


def vtysh(*commands):
    return run("vtysh", *(word for command in commands for word in ("-c", command)))


def running():
    """What FRR shows, as the startup configuration has it: without the last line."""
    shown = vtysh("show running-config no-header")
    assert shown.endswith("!\nend\n")
    return shown.removesuffix("end\n")


def startup():
    return FILE.read_text()


def cmdshell(command):
    """(status, output) of our shell, as the agent's user."""
    done = subprocess.run([*AS_AGENT, "cmdshell", "-c", command], stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=60)
    return done.returncode, done.stdout


def configure(text):
    file = Path("/tmp/frr-test.cfg")
    file.write_text(text)
    return cmdshell(f"configure {file}")


def states():
    """What watchfrr says of each daemon."""
    shown = subprocess.run(["vtysh", "-c", "show watchfrr"], stdout=subprocess.PIPE,
                           stderr=subprocess.DEVNULL, text=True).stdout
    return dict(line.split()[:2] for line in shown.splitlines() if line.startswith("  "))


def all_up():
    return states() == {daemon: "Up" for daemon in DAEMONS}


def restart():
    subprocess.run([INIT, "restart"], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                   stderr=subprocess.DEVNULL, check=True)
    wait_for(all_up, what="FRR")


def pid(daemon):
    return int(Path(f"/run/frr/{daemon}.pid").read_text())
