#!/usr/bin/python3
"""A fault at a random moment of a copy or save: something is killed, stopped, full or cut off.

Afterwards the row has ended, its outcome is what truly happened, the configurations are whole,
nothing is left over, and the next copy and the next save work."""

import contextlib
import os
import signal
import subprocess
import time
from pathlib import Path

from campaign import Campaign  # first: it sets the path

import copy_table as ct
import invariants
import jobs
import protocols
import saves
from snmp import FastManager

MOST = 3_000_000  # octets of a file
# Seconds before the fault, at most. What comes too late makes the next one come earlier.
longest = {ct.TFTP: 0.05, ct.FTP: 0.2, ct.SFTP: 0.4, ct.SCP: 0.4, None: 0.005}
LIMITS = {"copy_time_limit": 4, "transfer_idle_limit": 2}
SERVERS = ("atftpd", "vsftpd", "sshd", "sftp-server")
CLIENTS = ("ftp", "sftp", "scp", "ssh")
DISK = Path("/lab/switch1/disk")
FAULTS = {}


class Missed(Exception):
    """The work is over, or what was to be hit is not there."""


def fault(*traits):
    """Registers a fault, a function that is given the Round. `copies`: it is for network copies;
    `scripts`: for those by scripts; `reporter`: what reports the outcome may be gone before it
    can; `before`: it may also come before the request."""

    def register(function):
        FAULTS[function.__name__.replace("_", " ")] = contextlib.contextmanager(function), traits
        return function

    return register


def send(number, pids):
    if not invariants.signal_all(number, pids):
        raise Missed


def pids_named(names, pids=None):
    if pids is None:
        pids = [int(entry.name) for entry in Path("/proc").glob("[0-9]*")]
    return [pid for pid in pids for name in invariants.names_of([pid]) if name in names]


def at_work():
    """The worker and its programs."""
    return invariants.descendants(invariants.pid_of("agent"))


@contextlib.contextmanager
def stopped(pids, chance):
    """Stops the processes, and lets them go on only sometimes if they may be lost."""
    send(signal.SIGSTOP, pids)
    yield
    if chance is None or chance.random() < 0.5:
        with contextlib.suppress(Missed):
            send(signal.SIGCONT, pids)


@fault("reporter")
def agent_killed(one):
    pids = at_work()
    invariants.killed("agent")
    was_done = one.job.is_done()
    ct.wait_for(lambda: not any(ct.process_state(pid) not in (None, "Z") for pid in pids), 1,
                "the end of the killed agent's workers")
    yield
    # What the server has received, it may still write down.
    assert one.job.is_done() == was_done or isinstance(one.job, jobs.Upload), (
        f"{one.job} came into force after the agent's death")
    ct.lab_ctl("start-agent")


@fault("reporter")
def agent_restarted(_):
    ct.lab_ctl("restart-agent")
    yield


@fault()
def agent_reloaded(_):
    ct.lab_ctl("reload-agent")
    yield


@fault()
def agent_paused(_):
    with stopped([invariants.pid_of("agent")], None):
        yield


@fault("reporter", "before")
def system_manager_killed(_):
    invariants.killed("system-manager")
    yield
    ct.lab_ctl("start-system-manager")


@fault("reporter")
def system_manager_restarted(_):
    ct.lab_ctl("restart-system-manager")
    yield


@fault("reporter", "before")
def system_manager_paused(_):
    with stopped([invariants.pid_of("system-manager")], None):
        yield


@fault("copies", "reporter")
def worker_killed(_):
    send(signal.SIGKILL, ct.children(invariants.pid_of("agent"))[:1])
    yield


@fault("copies", "reporter")
def worker_stopped(one):
    with stopped(ct.children(invariants.pid_of("agent"))[:1], one.chance):
        yield


@fault("copies", "scripts")
def script_killed(_):
    send(signal.SIGKILL, pids_named(("expect",), at_work()))
    yield


@fault("copies", "scripts")
def script_stopped(one):
    with stopped(pids_named(("expect",), at_work()), one.chance):
        yield


@fault("copies", "scripts")
def client_killed(one):
    found = pids_named(CLIENTS, at_work())
    send(signal.SIGKILL, found and [one.chance.choice(found)])
    yield


@fault("copies", "scripts")
def client_stopped(one):
    found = pids_named(CLIENTS, at_work())
    with stopped(found and [one.chance.choice(found)], one.chance):
        yield


@fault("copies", "before")
def servers_killed(_):
    for kind in ("tftp", "ftp", "ssh"):
        ct.lab_ctl("kill-server", kind)
    yield
    for kind in ("tftp", "ftp", "ssh"):
        ct.lab_ctl("start-server", kind)


@fault("copies", "before")
def servers_paused(_):
    with stopped(pids_named(SERVERS), None):
        yield


@fault("before")
def switch_disk_full(_):
    with saves.full_disk(ct.STATE_DIRECTORY):
        yield


@fault("copies", "before")
def server_disk_full(_):
    with saves.full_disk(ct.SERVER_ROOT):
        yield


@fault("before")
def disk_read_only(_):
    # The kernel refuses while a file is being written.
    if subprocess.run(["mount", "-o", "remount,ro", DISK], stderr=subprocess.DEVNULL).returncode:
        raise Missed
    yield
    ct.run("mount", "-o", "remount,rw", DISK)


@fault("copies", "before")
def link_down(_):
    ct.lab_ctl("break-link")
    yield
    ct.lab_ctl("mend-link")


@fault("before")
def sockets_deleted(_):
    points = [Path(os.environ["ULMO_RUN_DIR"]) / "msgbus" / point for point in ("3", "28")]
    for point in points:
        point.unlink()
    yield
    ct.wait_for(lambda: all(point.is_socket() for point in points), 3, "sockets")


@fault("reporter")
def request_destroyed(one):
    one.job.request.destroy()
    yield


class Round:
    def __init__(self, campaign, manager, chance):
        self.campaign, self.manager, self.chance = campaign, manager, chance
        self.kind = [*FAULTS][campaign.round % len(FAULTS)]
        self.fault, self.traits = FAULTS[self.kind]
        self.protocol = self.some_protocol()
        if self.protocol is None:
            self.job = jobs.Save(manager, chance, 1, chance.choice(saves.SAVES))
        else:
            job = chance.choice((jobs.Upload, jobs.Download))
            self.job = job(manager, chance, MOST, self.protocol)
        campaign.doing = f"{self.kind}, {type(self.job).__name__}, protocol {self.protocol}"

    def some_protocol(self):
        if "scripts" in self.traits:
            return self.chance.choice([*protocols.SCRIPTS.values()])
        known = [*protocols.PROTOCOLS.values()]
        return self.chance.choice(known if "copies" in self.traits else [*known, None, None])

    def activate(self):
        # Refused, or not answered while the system manager is gone: the row says what became of it.
        with contextlib.suppress(ct.SnmpError):
            self.job.request.activate()

    def strike(self):
        """The fault and the request, in some order, and some time with both of them."""
        is_before = "before" in self.traits and self.chance.random() < 0.3
        if not is_before:
            self.activate()
            time.sleep(self.chance.uniform(0, longest[self.protocol]))
        try:
            if not is_before and self.job.request.get(ct.STATE) != ct.STATE_RUNNING:
                longest[self.protocol] *= 0.9
                raise Missed
            with self.fault(self):
                if is_before:
                    self.activate()
                time.sleep(self.chance.uniform(0, 1))
            longest[self.protocol] *= 1.03  # so that three of four come in time
            self.campaign.figures[self.kind] += 1
        except Missed:
            self.campaign.figures["missed"] += 1

    def judge(self):
        invariants.no_row_without_work(self.manager)
        invariants.comes_to_rest(self.manager, within=10)
        self.job.allowed()
        state = self.job.request.get(ct.STATE)
        if state == ct.STATE_SUCCESSFUL:
            # A TFTP server confirms the end of a file before it writes it to its disk.
            if self.kind != "server disk full" or self.protocol != ct.TFTP:
                self.job.done()
        elif self.job.is_done() and not isinstance(self.job, jobs.Upload):
            # An upload that arrived, but not the server's last word, did fail.
            assert "reporter" in self.traits, f"{self.job} reads {state}, but was done"
            self.campaign.figures["done, but not reported"] += 1
        word = {ct.STATE_SUCCESSFUL: "successful", ct.STATE_FAILED: "failed", None: "gone"}
        self.campaign.figures[word.get(state, "refused")] += 1

    def works_again(self):
        jobs.Upload(self.manager, self.chance, 1000, ct.TFTP).succeeds(5)
        jobs.Save(self.manager, self.chance, 1, ct.STARTUP).succeeds(5)


def body(campaign):
    manager = FastManager()
    with protocols.settings(**LIMITS):
        # What stays for good, such as host keys, is not left over.
        for job, kinds in ((jobs.Upload, protocols.PROTOCOLS.values()), (jobs.Save, saves.SAVES)):
            for kind in kinds:
                job(manager, campaign.chance(0), 1000, kind).succeeds()
        invariants.comes_to_rest(manager)
        leftovers = invariants.Leftovers()
        for chance in campaign.rounds():
            one = Round(campaign, manager, chance)
            one.strike()
            one.judge()
            one.job.forget()
            one.works_again()
            leftovers.none()
    invariants.password_is_nowhere(ct.SECRET)


campaign = Campaign(__doc__)
campaign.run(body)
