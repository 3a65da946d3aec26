import shutil
import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).parent))
pytest.register_assert_rewrite("scripts")

from scripts import *


@pytest.fixture(params=SCRIPTS, autouse=False)
def script(request):
    return SCRIPTS[request.param]


@pytest.fixture(params=["sftp", "scp"])
def ssh_script(request):
    return SCRIPTS[request.param]


@pytest.fixture(params=["put", "get"])
def action(request):
    return request.param


@pytest.fixture(autouse=True)
def clean_hosts(quiet_switch):
    """Every test begins and ends with the settings as they were, without known hosts, and with empty folders on the server."""
    before = SETTINGS.read_bytes()
    yield
    SETTINGS.write_bytes(before)
    KNOWN_HOSTS.unlink(missing_ok=True)
    for entry in SERVER_ROOT.iterdir():
        if entry.is_dir():
            shutil.rmtree(entry)


@pytest.fixture
def here():
    """A folder of the switch, which a test leaves with the files it names and no others."""
    path = Path("/tmp/transfers")
    path.mkdir()
    yield path
    shutil.rmtree(path)


@pytest.fixture
def files(here):
    """A file on either side, `(local, remote)` of a transfer in the given direction."""

    def make(action, content, name="moved.cfg"):
        source, target = here / "here.cfg", SERVER_ROOT / name
        if action == "get":
            source, target = target, source
        source.write_bytes(content)
        source.chmod(0o644)
        os.chown(SERVER_ROOT, *(os.stat(SERVER_ROOT).st_uid,) * 2)
        return here / "here.cfg", name, target

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
    """A second address of the server's host. Nobody listens there but whom the test starts."""
    on_server("ip", "address", "add", f"{OTHER_HOST}/24", "dev", "br0")
    started = []

    def start(*words):
        started.append(subprocess.Popen(["lab-ctl", "server-exec", *map(str, words)], stdin=subprocess.DEVNULL))
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
