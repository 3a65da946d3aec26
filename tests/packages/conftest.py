"""A Debian 12 of its own in build/package-test, with a network of its own and a file server beside it."""

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
# What a switch has before the packages come: the agent, its tools, and what the packages say that they need.
PRESENT = "snmpd,snmp,expect,ftp,openssh-client,iproute2,procps"


def run(*words, check=True, **options):
    done = subprocess.run(words, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, errors="replace", **options)
    if check and done.returncode != 0:
        raise AssertionError(f"{' '.join(map(str, words))}: exit status {done.returncode}\n{done.stdout}")
    return done


class Switch:
    """Debian in a chroot. Whatever runs in it is in namespaces that end with the object."""

    # The shell stays as the first process: it takes in what its daemons leave behind.
    first_process = """
        mount --make-rprivate / && mount --bind {0} {0} && mount -t proc proc {0}/proc && mount -t tmpfs run {0}/run &&
        mount -t devpts -o newinstance,ptmxmode=666 devpts {0}/dev/pts && echo ready && while :; do sleep 0.1; done"""

    def __init__(self, root):
        self.root = root
        # Without an init system there is nobody else to say that services may be started.
        policy = root / "usr/sbin/policy-rc.d"
        policy.write_text("#!/bin/sh\nexit 0\n")
        policy.chmod(0o755)
        self.holder = subprocess.Popen(["unshare", "--mount", "--net", "--pid", "--ipc", "--fork", "--kill-child", "sh", "-c", self.first_process.format(root)],
                                       stdout=subprocess.PIPE, text=True)
        assert self.holder.stdout.readline() == "ready\n"
        children = Path(f"/proc/{self.holder.pid}/task/{self.holder.pid}/children").read_text().split()
        self.pid = int(children[0])
        self.server_network = subprocess.Popen(["unshare", "--net", "sh", "-c", "echo ready; exec sleep infinity"], stdout=subprocess.PIPE, text=True)
        assert self.server_network.stdout.readline() == "ready\n"
        network = ["nsenter", "-n", "-t", str(self.pid)]
        run(*network, "ip", "link", "add", "eth0", "type", "veth", "peer", "name", "eth0", "netns", str(self.server_network.pid))
        for prefix, address in ((network, SWITCH), (self.on_server(), SERVER)):
            run(*prefix, "ip", "link", "set", "lo", "up")
            run(*prefix, "ip", "address", "add", f"{address}/24", "dev", "eth0")
            run(*prefix, "ip", "link", "set", "eth0", "up")
        self.served = PLACE / "served"
        shutil.rmtree(self.served, ignore_errors=True)
        self.served.mkdir()
        self.served.chmod(0o777)
        self.file_server = subprocess.Popen([*self.on_server(), UNPACKED / "root-atftpd/usr/sbin/atftpd", "--daemon", "--no-fork", "--user", "root.root",
                                             "--bind-address", SERVER, self.served], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def on_server(self):
        return ["nsenter", "-n", "-t", str(self.server_network.pid)]

    def words(self, *words):
        environment = ["env", "-i", "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", "HOME=/root", "LC_ALL=C.UTF-8", "DEBIAN_FRONTEND=noninteractive"]
        return ["nsenter", "-m", "-n", "-p", "-i", "-t", str(self.pid), "chroot", str(self.root), *environment, *words]

    def run(self, *words, **options):
        return run(*self.words(*words), **options)

    def shell(self, script, **options):
        return self.run("sh", "-c", script, **options).stdout

    def install(self, *packages):
        for package in packages:
            shutil.copy(package, self.root / "tmp")
        return self.run("apt-get", "install", "-y", "--no-install-recommends", *(f"/tmp/{package.name}" for package in packages)).stdout

    def pids_of(self, program):
        return self.shell(f"pgrep -x {program} || true").split()

    def end(self):
        for process in (self.file_server, self.server_network, self.holder):
            process.send_signal(signal.SIGKILL)
            process.wait()


def wait_until(holds, within=10):
    deadline = time.monotonic() + within
    while not (result := holds()):
        assert time.monotonic() < deadline, "it did not come to that"
        time.sleep(0.05)
    return result


@pytest.fixture(scope="session")
def packages():
    """The packages of scripts/package.sh, by name."""
    found = {path.name.split("_")[0]: path for path in (REPOSITORY / "build/packages").glob("*.deb")}
    assert {"config-copy", "config-copy-mib"} <= set(found), "scripts/package.sh makes them"
    return found


@pytest.fixture(scope="session")
def switch():
    PLACE.mkdir(parents=True, exist_ok=True)
    root = PLACE / "root"
    shutil.rmtree(root, ignore_errors=True)
    run("debootstrap", "--variant=minbase", f"--include={PRESENT}", "bookworm", str(root), env={**os.environ, "DEBIAN_FRONTEND": "noninteractive"})
    made = Switch(root)
    yield made
    made.end()
    shutil.rmtree(root)
