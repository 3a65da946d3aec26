"""A Debian 12 of its own in build/package-test: a switch with its own systemd and network, and a
file server next to it."""

import os
import shutil
import signal
import subprocess
import time
from pathlib import Path

import pytest

REPOSITORY = Path(__file__).resolve().parents[2]
PLACE = REPOSITORY / "build/package-test"
UNPACKED = REPOSITORY / "build/lab"
SWITCH, SERVER = "192.0.2.1", "192.0.2.2"
# What a switch has before our packages are installed, in addition to their dependencies, which
# include the agent.
PRESENT = (
    "systemd-sysv", "dbus", "git", "snmp", "python3-jinja2",
    "tftpd-hpa",  # for debian/tests
    "python3-apt"  # for Ansible, which installs packages
)


def run(*words, check=True, **options):
    done = subprocess.run(words, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          errors="replace", **options)
    if check and done.returncode != 0:
        raise AssertionError(
            f"{' '.join(map(str, words))}: exit status {done.returncode}\n{done.stdout}")
    return done


def needs_of(package):
    """The Debian packages that it depends on; of alternatives, the first."""
    needs = (need.split("|")[0].split("(")[0].split(":")[0].strip()
             for need in run("dpkg-deb", "-f", package, "Depends").stdout.split(","))
    return [need for need in needs if need and not need.startswith("config-copy")]


def wait_until(holds, within=20):
    deadline = time.monotonic() + within
    while not (result := holds()):
        assert time.monotonic() < deadline, "the condition did not come true"
        time.sleep(0.05)
    return result


class Switch:
    """A Debian that runs its own systemd, in namespaces that end with the object, and a TFTP server
    in a second network namespace."""

    # Its root is mounted on /proc, see own-mounts.sh. It sees copies of the machine's devices, and
    # a hierarchy of control groups without controllers.
    boot = """
        mount --make-private /proc && mount --bind "$1" /proc && mount --make-private /proc &&
        cd /proc && mount -t proc proc proc && mount -t sysfs -o ro sysfs sys &&
        mount -t tmpfs cgroup sys/fs/cgroup && mount -t cgroup2 cgroup sys/fs/cgroup &&
        mount -t tmpfs -o mode=755 run run &&
        mount -t devpts -o newinstance,ptmxmode=666 devpts dev/pts && echo ready &&
        exec env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin container=chroot \\
            chroot . /lib/systemd/systemd --show-status=no"""

    def __init__(self, root):
        self.root = root
        self.served = PLACE / "served"
        shutil.rmtree(self.served, ignore_errors=True)
        self.served.mkdir()
        self.served.chmod(0o777)
        # All end with this process, whatever ends it.
        self.server_network = subprocess.Popen([
            "setpriv", "--pdeathsig", "KILL", "unshare", "--net", "sh", "-c",
            "echo ready; exec sleep infinity"
        ], stdout=subprocess.PIPE, text=True)
        assert self.server_network.stdout.readline() == "ready\n"
        self.start()
        self.file_server = subprocess.Popen([
            "setpriv", "--pdeathsig", "KILL", *self.on_server(),
            UNPACKED / "root-atftpd/usr/sbin/atftpd", "--daemon", "--no-fork", "--user",
            "root.root", "--bind-address", SERVER, self.served
        ], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def start(self):
        with (PLACE / "boot.log").open("w") as log:
            self.holder = subprocess.Popen([
                "setpriv", "--pdeathsig", "KILL", "unshare", "--mount", "--propagation",
                "unchanged", "--net", "--pid", "--ipc", "--uts", "--cgroup", "--fork",
                "--kill-child", "sh", "-c", self.boot, "boot", self.root
            ], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=log, text=True)
        assert self.holder.stdout.readline() == "ready\n", (PLACE / "boot.log").read_text()
        pid = self.holder.pid
        (self.init,) = Path(f"/proc/{pid}/task/{pid}/children").read_text().split()
        network = ["nsenter", "-n", "-t", self.init]
        # The kernel may still be removing the network of a switch that was switched off.
        run(*self.on_server(), "ip", "link", "delete", "eth0", check=False)
        run(*network, "ip", "link", "add", "eth0", "type", "veth", "peer", "name", "eth0", "netns",
            str(self.server_network.pid))
        for prefix, address in ((network, SWITCH), (self.on_server(), SERVER)):
            run(*prefix, "ip", "link", "set", "lo", "up")
            run(*prefix, "ip", "address", "add", f"{address}/24", "dev", "eth0")
            run(*prefix, "ip", "link", "set", "eth0", "up")
        wait_until(
            lambda: self.run("systemctl", "is-system-running", check=False).stdout.strip() in
            ("running", "degraded"), within=60)

    def stop(self):
        """As in a power failure."""
        os.kill(int(self.init), signal.SIGKILL)
        self.holder.wait()

    def start_again(self):
        self.stop()
        self.start()

    def on_server(self):
        return ["nsenter", "-n", "-t", str(self.server_network.pid)]

    def words(self, *words):
        environment = [
            "env", "-i", "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
            "HOME=/root", "LC_ALL=C.UTF-8", "DEBIAN_FRONTEND=noninteractive"
        ]
        return ["nsenter", "-a", "-r", "-w", "-t", self.init, *environment, *words]

    def run(self, *words, **options):
        return run(*self.words(*words), **options)

    def shell(self, script, **options):
        return self.run("sh", "-c", script, **options).stdout

    def install(self, *packages):
        """The switch can't reach an archive, so a dependency that a package does not declare is
        missing."""
        for package in packages:
            shutil.copy(package, self.root / "root")
        return self.run("apt-get", "install", "-y", "--no-install-recommends", "-o",
                        "Dpkg::Options::=--force-confold",
                        *(f"/root/{package.name}" for package in packages)).stdout

    def main_process(self, service):
        return int(self.run("systemctl", "show", "-P", "MainPID", service).stdout)

    def end(self):
        for process in (self.file_server, self.server_network):
            process.kill()
            process.wait()
        self.stop()


@pytest.fixture(scope="session")
def packages():
    """The packages of scripts/package.sh, by name."""
    found = {
        name: list((REPOSITORY / "build/packages").glob(f"{name}_*.deb"))
        for name in ("config-copy", "config-copy-mib", "config-copy-mib-common",
                     "config-copy-mib-frr")
    }
    assert all(len(files) == 1 for files in found.values()), "scripts/package.sh makes them"
    return {name: files[0] for name, files in found.items()}


@pytest.fixture(scope="session")
def frr():
    """FRR's packages. Nothing of what they need beyond Debian's own is in them."""
    place = PLACE / "frr"
    shutil.rmtree(place, ignore_errors=True)
    place.mkdir(parents=True)
    run("apt-get", "download", "-q", "-o", "APT::Sandbox::User=root", "frr", "frr-pythontools",
        cwd=place)
    return sorted(place.glob("*.deb"))


@pytest.fixture(scope="session")
def switch(packages, frr):
    PLACE.mkdir(parents=True, exist_ok=True)
    root = PLACE / "root"
    shutil.rmtree(root, ignore_errors=True)
    needed = {need for package in (*packages.values(), *frr) for need in needs_of(package)}
    present = ",".join({*PRESENT, *needed} - {"frr", "frr-pythontools"})
    root.mkdir()
    # debootstrap takes no path with blanks, so it sees the folder under another name.
    run(
        REPOSITORY / "tests/own-mounts.sh", "sh", "-c",
        'mount --bind "$1" /mnt && exec debootstrap --variant=minbase "--include=$2" bookworm /mnt',
        "make", root, present, env={**os.environ, "DEBIAN_FRONTEND": "noninteractive"})
    made = Switch(root)
    yield made
    made.end()
    shutil.rmtree(root)
