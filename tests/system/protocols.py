"""The copies of every protocol, collected by the folders of the labs that they run in: without a
VRF and within one. A Place holds what differs between the two.

Files of any size go both ways. The file of an upload is the startup configuration, which the switch
sends octet for octet. A download is compared in the worker's folder, through a descriptor that is
opened while the file arrives. The worker then applies the file; it has only comments, which change
nothing."""

import contextlib
import itertools
import os
import re
import threading
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest
from copy_table import (
    BAD_FILE, BAD_FILE_NAME, FAIL_CAUSE, FTP, GENERAL, LOGS, NOTIFY, NO_SPACE, SCP, SECRET,
    SERVER4, SERVER6, SERVER_ROOT, SFTP, STARTUP, STATE, STATE_DIRECTORY, STATE_FAILED,
    STATE_SUCCESSFUL, TFTP, TIMEOUT, TRUE, Manager, Request, children, completions, download,
    lab_ctl, run, serve, show, upload, wait_for,
)
from saves import busy_device, full_disk

SCRIPTS = {"ftp": FTP, "sftp": SFTP, "scp": SCP}
PROTOCOLS = {"tftp": TFTP, **SCRIPTS}
# The file server's daemons, as lab-ctl names them.
KINDS = {TFTP: "tftp", FTP: "ftp", SFTP: "ssh", SCP: "ssh"}
EVERY_PROTOCOL = pytest.mark.parametrize("protocol", PROTOCOLS.values(), ids=PROTOCOLS)
EVERY_SCRIPT = pytest.mark.parametrize("protocol", SCRIPTS.values(), ids=SCRIPTS)
LINE = b"! nothing but a comment, to fill a file with lines 01234567890\n"
# A second address of the server's host, on which nothing listens but what a test starts.
OTHER_SERVER = SERVER4.rpartition(".")[0] + ".30"
KNOWN_HOSTS = STATE_DIRECTORY / "ssh_known_hosts"


class Place:
    """Where the transfers run: in the ordinary network, or in a VRF; and the SNMP context of the
    requests."""

    def __init__(self, vrf=None, context=""):
        self.vrf, self.context = vrf, context

    def manager(self, number=1):
        """A manager that runs on that switch itself, and so reaches its agent over a broken
        link."""
        within = ("nsenter", f"--net=/run/netns/switch{number}", "--") if number > 1 else ()
        return Manager("v3", os.environ["LAB_AGENTS"].split()[number - 1], self.context, within)

    def cause(self, protocol, otherwise, tftp=None):
        """The cause of a failure. In a VRF every failure of TFTP is a general one."""
        if protocol != TFTP:
            return otherwise
        return GENERAL if self.vrf else tftp or otherwise

    def link(self, number=1):
        """The link over which that switch reaches the server, as lab-ctl names it."""
        return "vrf" if self.vrf else number

    def within(self, *words):
        """The command, in the network from which the server is reached."""
        return ["ip", "netns", "exec", self.vrf, *words] if self.vrf else words

    @contextlib.contextmanager
    def slow(self, rate, *numbers, protocol=TFTP):
        """Limits both directions of the switches' links to `rate` kbit/s. For TFTP the queue holds
        a whole window. For TCP it is shorter, so that acknowledgments do not wait behind the data
        of the other direction."""
        latency = "300ms" if protocol == TFTP else "40ms"
        ends = [(self.within, "vrf0")] if self.vrf else [
            ((lambda *words, n=n: ["lab-ctl", "switch-exec", n, *words]), "mgmt0") for n in numbers
        ]
        ends += [((lambda *words: ["lab-ctl", "server-exec", *words]), f"port{self.link(n)}")
                 for n in ([1] if self.vrf else numbers)]
        for within, device in ends:
            run(*within("tc", "qdisc", "replace", "dev", device, "root", "tbf", "rate",
                        f"{rate}kbit", "burst", "4k", "latency", latency))
        try:
            yield
        finally:
            for within, device in ends:
                run(*within("tc", "qdisc", "del", "dev", device, "root"))

    @contextlib.contextmanager
    def broken(self, *numbers):
        links = {self.link(number) for number in numbers}
        lab_ctl("break-link", *links)
        try:
            yield
        finally:
            lab_ctl("mend-link", *links)

    def octets_seen(self):
        """The octets on the link to the server, and those on the switch's other link, which it has
        only with a VRF."""

        def on(device, *command):
            counts = run(*command, "cat", "/proc/net/dev").partition(f"{device}:")[2].split()
            return int(counts[0]) + int(counts[8])

        return (on("vrf0", *self.within()), on("mgmt0")) if self.vrf else (on("mgmt0"), 0)


class Switch:
    """The places of a switch in which a transfer may leave something."""

    def __init__(self, number=1):
        self.number = number
        self.state = Path(f"/lab/switch{number}/disk/state")
        self.settings = Path(f"/lab/switch{number}/platform.conf")

    def agent(self):
        return int(lab_ctl("agent-pid", self.number))

    def running(self):
        return (self.state / "running.cfg").read_bytes()

    def startup(self, content):
        (self.state / "system.cfg").write_bytes(content)

    def arriving(self):
        """The files of the worker, complete or not."""
        return [path for path in (self.state / "work").glob("*/*") if path.is_file()]

    def arrived(self):
        """How many octets these files have."""
        with contextlib.suppress(FileNotFoundError):  # renamed: it is complete
            return sum(path.stat().st_size for path in self.arriving())
        return 0

    def is_clean(self):
        """No file of a transfer is left, and no process."""
        return not [*(self.state / "work").iterdir()] and not family(self.agent())[1:]


def family(pid):
    """The process and all that it has started."""
    pids = [pid]
    for parent in pids:
        with contextlib.suppress(OSError):
            pids += children(parent)
    return pids


def left_clean(number=1):
    wait_for(Switch(number).is_clean, 10, f"the end of what switch {number} has started")


def notified(request, state, cause):
    """One notification has reported the outcome."""
    (bindings,) = wait_for(lambda: completions(request.index), what="the notification")
    assert (request.oid(STATE), state) in bindings and (request.oid(FAIL_CAUSE), cause) in bindings


def fails(request, cause, within=15):
    """The request fails with this cause, which the notification reports, and leaves nothing."""
    request.activate()
    assert request.finished(within) == (STATE_FAILED, cause)
    notified(request, STATE_FAILED, cause)
    left_clean()


@contextlib.contextmanager
def settings(number=1, **values):
    file = Switch(number).settings
    before = file.read_bytes()
    file.write_bytes(before + "".join(f"{name} = {value}\n"
                                      for name, value in values.items()).encode())
    try:
        yield
    finally:
        file.write_bytes(before)


def content(size):
    return (LINE * (size // len(LINE) + 1))[:size]


def received(request):
    """Activates a download and returns what arrived."""
    with contextlib.ExitStack() as stack:
        # The worker applies the file when the device is free and then removes it; an open
        # descriptor keeps it.
        with busy_device():
            request.activate()

            def opened():
                with contextlib.suppress(
                        FileNotFoundError):  # renamed: it is complete
                    return [stack.enter_context(open(path, "rb")) for path in Switch().arriving()]

            (file,) = wait_for(opened, what="the file")
        request.finished(30)
        return file.read()


# What goes through


@EVERY_PROTOCOL
@pytest.mark.parametrize("server", [SERVER4, SERVER6], ids=["ipv4", "ipv6"])
def test_every_octet(operator, place, protocol, server, startup, unchanged):
    for whole in map(content, (0, 1, 100_000, 20_000_000)):
        seen = place.octets_seen()
        startup(whole)
        request = Request(operator).create(*upload(server, "up.cfg", STARTUP, protocol),
                                           (NOTIFY, TRUE)).copied(30)
        notified(request, STATE_SUCCESSFUL, GENERAL)
        assert (SERVER_ROOT / "up.cfg").read_bytes() == whole
        left_clean()

        serve("down.cfg", whole)
        request = Request(operator).create(*download(server, "down.cfg", protocol=protocol),
                                           (NOTIFY, TRUE))
        assert received(request) == whole
        assert request.get(STATE, FAIL_CAUSE) == [STATE_SUCCESSFUL, GENERAL]
        notified(request, STATE_SUCCESSFUL, GENERAL)

        on_the_way, elsewhere = (after - before for before, after in zip(seen, place.octets_seen()))
        assert on_the_way > 2 * len(whole) and elsewhere < 5000  # two notifications


@EVERY_PROTOCOL
def test_configuration_comes_into_force(operator, protocol, lines_of):
    serve("new.cfg", lines_of("vlan 77", "ntp server 192.0.2.99"))
    Request(operator).create(*download(SERVER4, "new.cfg", protocol=protocol)).copied()
    assert "vlan 77\n" in show("running") and "ntp server 192.0.2.99\n" in show("running")
    Request(operator).create(*upload(SERVER4, "back.cfg", protocol=protocol)).copied()
    assert (SERVER_ROOT / "back.cfg").read_text() == show("running")


# File names


HOSTILE = [
    "a  \"b'c$(owned;touch owned)`owned;touch owned`;owned;touch owned;&owned|owned #%d%n*?",
    '"; owned; touch owned; "',
    "| owned",
    "!owned",
    "-oProxyCommand=owned",
    "[exec owned]${x}",
]


@EVERY_PROTOCOL
def test_name_is_nothing_but_a_name(operator, protocol, unchanged, traps_for_names):
    for name in HOSTILE:
        Request(operator).create(*upload(SERVER4, name, protocol=protocol)).copied()
        assert os.listdir(SERVER_ROOT) == [name]
        assert (SERVER_ROOT / name).read_text() == show("running")
        Request(operator).create(*download(SERVER4, name, protocol=protocol)).copied()
        assert os.listdir(SERVER_ROOT) == [name]
        (SERVER_ROOT / name).unlink()


@EVERY_PROTOCOL
def test_name_with_a_folder_that_is_not_there(operator, place, protocol, unchanged):
    """The name begins with a command and goes on with the name of a missing folder."""
    for direction in (upload, download):
        fails(
            Request(operator).create(*direction(SERVER4, "$(touch /tmp/x)", protocol=protocol),
                                     (NOTIFY, TRUE)), place.cause(protocol, BAD_FILE_NAME))
    assert not Path("/tmp/x").exists() and os.listdir(SERVER_ROOT) == []


# What the server refuses


@EVERY_PROTOCOL
def test_names_that_the_server_refuses(operator, place, protocol, unchanged):
    folder = SERVER_ROOT / "folder"
    folder.mkdir()
    os.chown(folder, *(os.stat(SERVER_ROOT).st_uid,) * 2)
    serve("unreadable.cfg", "hostname stolen\n", mode=0o600)
    protected = serve("protected.cfg", "untouched\n", mode=0o444)
    try:
        for direction, name in ((download, "missing.cfg"), (download, "unreadable.cfg"),
                                (download, "folder"), (upload, "protected.cfg"), (upload,
                                                                                  "folder")):
            request = Request(operator).create(*direction(SERVER4, name, protocol=protocol),
                                               (NOTIFY, TRUE))
            # The TFTP server opens a folder as if it were a file, and then has nothing to send.
            fails(
                request,
                place.cause(protocol, BAD_FILE_NAME, GENERAL if
                            (direction, name) == (download, "folder") else None))
        assert protected.read_text() == "untouched\n"
    finally:
        for file in folder.iterdir():
            file.unlink()
        folder.rmdir()


@EVERY_SCRIPT
def test_login_that_the_server_refuses(operator, protocol, unchanged):
    """TFTP has no login."""
    serve("there.cfg", "hostname stolen\n")
    for direction, name, login in ((download, "there.cfg", {"password": "wrong"}),
                                   (upload, "new.cfg", {"user": "nobody-knows"})):
        fails(
            Request(operator).create(*direction(SERVER4, name, protocol=protocol, **login),
                                     (NOTIFY, TRUE)), GENERAL)
    assert os.listdir(SERVER_ROOT) == ["there.cfg"]


@pytest.mark.parametrize("protocol", [SFTP, SCP], ids=["sftp", "scp"])
def test_changed_host_key(operator, protocol, unchanged):
    """FTP and TFTP servers have none."""
    Request(operator).create(*upload(SERVER4, "first.cfg", protocol=protocol)).copied()
    lab_ctl("new-host-key")
    serve("there.cfg", "hostname stolen\n")
    known = KNOWN_HOSTS.read_bytes()
    for direction, name in ((download, "there.cfg"), (upload, "second.cfg")):
        fails(
            Request(operator).create(*direction(SERVER4, name, protocol=protocol), (NOTIFY, TRUE)),
            GENERAL)
    assert KNOWN_HOSTS.read_bytes() == known and not (SERVER_ROOT / "second.cfg").exists()
    KNOWN_HOSTS.unlink()
    Request(operator).create(*upload(SERVER4, "second.cfg", protocol=protocol)).copied()


def test_tftp_file_that_is_too_large(operator, unchanged):
    """The server announces its size."""
    os.truncate(serve("huge.cfg", ""), 128 * 1024 * 1024 + 1)
    fails(Request(operator).create(*download(SERVER4, "huge.cfg"), (NOTIFY, TRUE)), BAD_FILE)


# Full disks


@EVERY_PROTOCOL
def test_full_disk_of_the_server(operator, place, protocol, startup, unchanged):
    startup(content(1_000_000))  # more than a server may keep in its buffers
    with full_disk(SERVER_ROOT):
        fails(
            Request(operator).create(*upload(SERVER4, "no-room.cfg", STARTUP, protocol),
                                     (NOTIFY, TRUE)), place.cause(protocol, NO_SPACE))
    Request(operator).create(*upload(SERVER4, "room.cfg", STARTUP, protocol)).copied()
    assert (SERVER_ROOT / "room.cfg").read_bytes() == content(1_000_000)


@EVERY_PROTOCOL
def test_full_disk_of_the_switch(operator, place, protocol, unchanged):
    """TFTP reports a local failure as an error of the system, for which the table of causes has no
    number. An upload first writes the configuration into a file, which fails before any protocol
    begins."""
    serve("large.cfg", content(1_000_000))
    with full_disk(STATE_DIRECTORY):
        fails(
            Request(operator).create(*download(SERVER4, "large.cfg", protocol=protocol),
                                     (NOTIFY, TRUE)), place.cause(protocol, NO_SPACE, GENERAL))
        fails(
            Request(operator).create(*upload(SERVER4, "none.cfg", protocol=protocol),
                                     (NOTIFY, TRUE)), GENERAL)
    assert os.listdir(SERVER_ROOT) == ["large.cfg"]
    Request(operator).create(*download(SERVER4, "large.cfg", protocol=protocol)).copied()


# Servers that do not answer, and links that break


# Accepts connections and datagrams and never answers.
SILENT = f"""
import socket, time
listeners = [socket.create_server(("{OTHER_SERVER}", port)) for port in (21, 22)]
datagrams = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
datagrams.bind(("{OTHER_SERVER}", 69))
time.sleep(600)
"""


def listening():
    return all(
        run("lab-ctl", "server-exec", "ss", "-Hln", "-A", kind, f"src {OTHER_SERVER}:{port}")
        for kind, port in (("tcp", 21), ("tcp", 22), ("udp", 69)))


@EVERY_PROTOCOL
def test_nobody_listens(operator, place, protocol, other_server, unchanged):
    for direction in (upload, download):
        fails(
            Request(operator).create(*direction(OTHER_SERVER, "x.cfg", protocol=protocol),
                                     (NOTIFY, TRUE)), place.cause(protocol, TIMEOUT, GENERAL))


class Pair:
    """An upload and a download by one protocol at the same time, from one switch and to another."""

    size = 6_500_000  # several times what SSH's clients and servers write at once
    # Kbit/s. Neither direction ends before the other one has moved half, even if that one loses two
    # seconds to TCP's recovery or to a busy machine.
    rate = 13_000

    def __init__(self, place, protocol, up=1, down=2):
        self.place, self.protocol, self.numbers = place, protocol, (up, down)
        self.switches = Switch(up), Switch(down)
        self.before = [switch.running() for switch in self.switches]
        self.target = SERVER_ROOT / f"up{protocol}.cfg"
        self.switches[0].startup(content(self.size))
        serve(f"down{protocol}.cfg", content(self.size))
        self.requests = (Request(place.manager(up)).create(
            *upload(SERVER4, self.target.name, STARTUP, protocol),
            (NOTIFY, TRUE)), Request(place.manager(down)).create(
                *download(SERVER4, f"down{protocol}.cfg", protocol=protocol), (NOTIFY, TRUE)))

    def start_and_reach(self, part):
        for request in self.requests:
            request.activate()

        most = 0

        def reached():
            nonlocal most
            up = self.target.stat().st_size if self.target.exists() else 0
            down = self.switches[1].arrived()
            assert down >= most, (f"the download ended with {most} of {self.size} octets; "
                                  f"the upload has moved {up}")
            most = down
            return min(up, down) >= part * self.size

        wait_for(reached, 20, "that part of the files")

    def fail(self, cause, within=35, notifies=True):
        for request in self.requests:
            assert request.finished(within) == (STATE_FAILED, cause)
            if notifies:
                notified(request, STATE_FAILED, cause)
            request.destroy()
        for number in self.numbers:
            left_clean(number)
        assert [switch.running() for switch in self.switches] == self.before


LIMITS = {"transfer_idle_limit": 2}


def cut_at_half(place, protocol, *numbers):
    pair = Pair(place, protocol, *numbers)
    with contextlib.ExitStack() as stack:
        for number in numbers:
            stack.enter_context(settings(number, **LIMITS))
        with place.slow(Pair.rate, *numbers, protocol=protocol):
            pair.start_and_reach(0.5)
            with place.broken(*numbers):
                # Without a VRF the notification would need the broken link.
                pair.fail(place.cause(protocol, TIMEOUT), notifies=place.vrf is not None)


def test_silence(place, other_server, startup, unchanged):
    """A server that takes connections and says nothing, and a link that breaks at half of the file.
    TFTP waits 20 seconds each time, in which the tests on the other switches run. Within a VRF all
    switches share the link, so the protocols cut it one after the other."""
    other_server("/usr/bin/python3", "-c", SILENT)
    wait_for(listening, what="the silent server")
    last = len(os.environ["LAB_AGENTS"].split())
    patient = Request(place.manager(last)).create(*download(OTHER_SERVER, "x.cfg"), (NOTIFY, TRUE))
    patient.activate()
    began = time.monotonic()

    def silent(protocol, number):
        with settings(number, **LIMITS):
            fails_on(
                number,
                Request(place.manager(number)).create(
                    *download(OTHER_SERVER, "x.cfg", protocol=protocol), (NOTIFY, TRUE)), TIMEOUT)

    def fails_on(number, request, cause):
        start = time.monotonic()
        request.activate()
        assert request.finished() == (STATE_FAILED, cause)
        took = time.monotonic() - start
        assert LIMITS["transfer_idle_limit"] - 1 < took < LIMITS["transfer_idle_limit"] + 4
        notified(request, STATE_FAILED, cause)
        left_clean(number)

    numbers = itertools.count(1)
    with ThreadPoolExecutor(4) as pool:
        list(pool.map(silent, SCRIPTS.values(), (1, 2, 3)))
        if place.vrf:
            for protocol in PROTOCOLS.values():
                cut_at_half(place, protocol, 1, 2)
        else:
            cuts = pool.map(
                lambda protocol: cut_at_half(place, protocol, next(numbers), next(numbers)),
                PROTOCOLS.values())
            list(cuts)
    assert patient.finished(30) == (STATE_FAILED, place.cause(TFTP, TIMEOUT))
    notified(patient, STATE_FAILED, place.cause(TFTP, TIMEOUT))
    assert time.monotonic() - began > 19
    left_clean(last)
    patient.destroy()


@EVERY_PROTOCOL
def test_server_that_dies(place, protocol, startup):
    pair = Pair(place, protocol)
    with place.slow(Pair.rate, 1, 2, protocol=protocol):
        pair.start_and_reach(0.25)
        lab_ctl("kill-server", KINDS[protocol])
        try:
            pair.fail(GENERAL)
        finally:
            lab_ctl("start-server", KINDS[protocol])


# Passwords


class Watch(threading.Thread):
    """Looks for the password in all processes but the tests' own, until `over` is set."""

    def __init__(self):
        super().__init__()
        self.over = threading.Event()
        # (where it shows, the script or program, the process's age in tenths of a second)
        self.seen = set()
        self.clients = {}  # how often each client was seen

    def run(self):
        while not self.over.is_set():
            for entry in Path("/proc").iterdir():
                if entry.name.isdigit():
                    with contextlib.suppress(OSError):
                        self.look_at(entry)

    def look_at(self, process):
        arguments = (process / "cmdline").read_bytes()
        words = [os.path.basename(word.decode(errors="replace")) for word in arguments.split(b"\0")]
        if words[0] in ("ftp", "sftp", "scp", "ssh"):
            self.clients[words[0]] = self.clients.get(words[0], 0) + 1
        environment = (process / "environ").read_bytes()
        for what, text in (("arguments", arguments), ("environment", environment)):
            if SECRET.encode() in text and not self.is_ours(int(process.name)):
                ticks = int((process / "stat").read_text().rpartition(")")[2].split()[19])
                started = ticks / os.sysconf("SC_CLK_TCK")
                script = next((word for word in words if word.endswith(".expect")), words[0])
                self.seen.add(
                    (what, script, int(10 * (time.clock_gettime(time.CLOCK_BOOTTIME) - started))))

    def is_ours(self, pid):
        while pid > 1 and pid != os.getpid():
            pid = int(Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()[1])
        return pid == os.getpid()


def lines_with_the_password(text):
    return [line for line in text.splitlines() if SECRET in line]


@EVERY_SCRIPT
def test_password_is_nowhere_but_where_it_is_said_to_be(operator, place, protocol, startup,
                                                        unchanged):
    """A script has the password among its arguments until it has read them, which is at once; no
    other process ever shows it. The agent's log has a trace line with it for each transfer, and the
    debug history has SCP's command line with it."""
    name, program, clients = {
        FTP: ("FTP", "snmp.ftp.expect", ["ftp"]), SFTP: ("SFTP", "sftp.expect", ["sftp", "ssh"]),
        SCP: ("SCP", "scp.expect", ["scp", "ssh"])
    }[protocol]
    startup(content(100_000))
    log = LOGS / "snmpd1.log"
    before = len(log.read_text()), run("ulmo-history")
    serve("down.cfg", content(100_000))
    watch = Watch()
    with place.slow(1200, 1, protocol=protocol):
        watch.start()
        try:
            Request(operator).create(*upload(SERVER4, "up.cfg", STARTUP, protocol)).copied(30)
            Request(operator).create(*download(SERVER4, "down.cfg", protocol=protocol)).copied(30)
        finally:
            watch.over.set()
            watch.join()
    assert {(what, script)
            for what, script, _ in watch.seen} <= {("arguments", program)}, watch.seen
    assert all(age < 5 for *_, age in watch.seen), watch.seen
    assert all(watch.clients.get(client, 0) > 10 for client in clients)

    traces = lines_with_the_password(log.read_text()[before[0]:])
    assert [re.search(r"(FTP|SFTP|SCP)_(PUT|GET)", line)[0]
            for line in traces] == [f"{name}_PUT", f"{name}_GET"]
    lines = [line for line in lines_with_the_password(run("ulmo-history")) if line not in before[1]]
    assert len(lines) == (2 if protocol == SCP else 0)
    assert all("executing command" in line for line in lines)
    files = [
        path for path in (*LOGS.iterdir(), *STATE_DIRECTORY.rglob("*"), *Path("/tmp").iterdir())
        if path.is_file()
    ]
    assert [
        path for path in files
        if SECRET.encode() in path.read_bytes() and not re.fullmatch(r"snmpd\d+\.log", path.name)
    ] == []
