import shutil
import subprocess
import sys
from pathlib import Path

import pytest

HERE = Path(__file__).parent
sys.path[:0] = [str(HERE), str(HERE.parents[2] / "lab")]  # shadow
pytest.register_assert_rewrite("scripts")

from copy_table import SERVER_ROOT, run
from scripts import KNOWN_HOSTS, OTHER_HOST, SCRIPTS, SETTINGS, Transfer, on_server


@pytest.fixture(params=SCRIPTS)
def script(request):
    return SCRIPTS[request.param]


@pytest.fixture(params=["sftp", "scp"])
def ssh_script(request):
    return SCRIPTS[request.param]


@pytest.fixture(autouse=True)
def quiet_switch():
    """Every test begins and ends with the settings as they were, without known hosts, and with an
    empty folder on the server."""
    before = SETTINGS.read_bytes()
    yield
    SETTINGS.write_bytes(before)
    KNOWN_HOSTS.unlink(missing_ok=True)
    for entry in SERVER_ROOT.iterdir():
        shutil.rmtree(entry) if entry.is_dir() else entry.unlink()


@pytest.fixture
def here():
    """A folder of the switch."""
    path = Path("/tmp/transfers")
    path.mkdir()
    yield path
    shutil.rmtree(path)


@pytest.fixture
def transfers(here):
    """An upload and a download with each of the scripts, of files with the given content."""

    def make(scripts, content):
        both = [Transfer(script, action, here) for script in scripts for action in ("put", "get")]
        for transfer in both:
            transfer.source.write_bytes(content)
        return both

    return make


@pytest.fixture
def small_disk():
    """A file system of 64 KiB and a few files, which the account may write."""
    path = Path("/tmp/small")
    path.mkdir()
    run("mount", "-t", "tmpfs", "-o", "size=64k,nr_inodes=8,mode=1777", "small", path)
    yield path
    run("umount", path)
    path.rmdir()


@pytest.fixture
def other_host():
    """A second address of the server's host. Only programs that the test starts listen there."""
    on_server("ip", "address", "add", f"{OTHER_HOST}/24", "dev", "br0")
    started = []

    def start(*words):
        started.append(
            subprocess.Popen(["lab-ctl", "server-exec", *map(str, words)],
                             stdin=subprocess.DEVNULL))
        return started[-1]

    yield start
    for process in started:
        process.kill()
        process.wait()
    on_server("ip", "address", "del", f"{OTHER_HOST}/24", "dev", "br0")


@pytest.fixture
def slow_link():
    """Both directions at the given speed, in kbit/s."""

    def limit(rate):
        bucket = ("root", "tbf", "rate", f"{rate}kbit", "burst", "4k", "latency", "500ms")
        run("tc", "qdisc", "replace", "dev", "mgmt0", *bucket)
        on_server("tc", "qdisc", "replace", "dev", "port1", *bucket)

    yield limit
    run("tc", "qdisc", "del", "dev", "mgmt0", "root")
    on_server("tc", "qdisc", "del", "dev", "port1", "root")
