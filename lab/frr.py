"""FRR on a switch of the lab, as Debian's packages install and start it."""

import shutil
import subprocess
from pathlib import Path

from daemons import UNPACKED, Failure, folder, poll, succeeds

AGENT_USER = "Debian-snmp"  # of Debian's snmpd
PACKAGES = ("frr", "frr-pythontools", "libyang2", "libc-ares2", "libjson-c5", "libreadline8")
INIT = "/usr/lib/frr/frrinit.sh"
SETTINGS = Path("/etc/frr")


def layers():
    """The folders whose content the lab shows in /usr."""
    return [UNPACKED / f"root-{package}" / "usr" for package in PACKAGES]


def make_accounts():
    """Those of the packages frr and snmpd, the agent's user in the groups that docs/devices.md
    names. The machine may have some of them."""
    for group in ("frrvty", "frr", AGENT_USER):
        if group not in _names("/etc/group"):
            _append("/etc/group", f"{group}:x:{_free_id('/etc/group')}:")
    for user in ("frr", AGENT_USER):
        if user not in _names("/etc/passwd"):
            group_id = _entries("/etc/group")[user][2]
            _append("/etc/passwd", f"{user}:x:{_free_id('/etc/passwd')}:{group_id}::/nonexistent:"
                    "/usr/sbin/nologin")
    groups = {"frrvty": ("frr", AGENT_USER), "frr": (AGENT_USER,)}
    lines = []
    for line in Path("/etc/group").read_text().splitlines():
        *fields, members = line.split(":")
        listed = [member for member in members.split(",") if member]
        listed += [user for user in groups.get(fields[0], ()) if user not in listed]
        lines.append(":".join([*fields, ",".join(listed)]))
    Path("/etc/group").write_text("\n".join(lines) + "\n")


def prepare():
    """The state after the installation, with bgpd enabled. The package's script makes all that is
    in the folder FRR's own, and closes it to others."""
    shutil.copytree(UNPACKED / "root-frr" / "etc", "/etc", dirs_exist_ok=True)
    daemons = SETTINGS / "daemons"
    daemons.write_text(daemons.read_text().replace("bgpd=no", "bgpd=yes"))
    for path in (SETTINGS, *SETTINGS.iterdir()):
        shutil.chown(path, "frr", "frr")
        path.chmod(0o750 if path.is_dir() else 0o640)
    folder(Path("/var/log/frr"))
    shutil.chown("/var/log/frr", "frr", "frr")


def start():
    done = subprocess.run([INIT, "start"], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True)
    if done.returncode != 0 or not poll(_answers, 20):
        raise Failure(f"FRR does not start: {done.stdout}")


def as_agent(*words):
    """The command as the agent's user, in all its groups."""
    return ("setpriv", f"--reuid={AGENT_USER}", f"--regid={AGENT_USER}", "--init-groups", "--",
            *words)


def give_to_agent(path):
    for place in (path, *path.rglob("*")):
        shutil.chown(place, AGENT_USER, AGENT_USER)


def _answers():
    # its shell says so by its status only if none of the daemons runs
    return succeeds("sh", "-c", "vtysh -c 'show watchfrr' | awk '/^  / { n++; up += $2 == \"Up\" }"
                    " END { exit !(n == 3 && up == 3) }'")


def _entries(file):
    return {line.split(":")[0]: line.split(":") for line in Path(file).read_text().splitlines()}


def _names(file):
    return _entries(file).keys()


def _free_id(file):
    taken = {entry[2] for entry in _entries(file).values()}
    return next(number for number in range(900, 999) if str(number) not in taken)


def _append(file, line):
    with open(file, "a") as stream:
        stream.write(line + "\n")
