#!/usr/bin/python3
"""Copies from and to servers that lie, babble, drip or say nothing.

Each copy ends in its time, changes nothing but by a whole file, and leaves nothing."""

import contextlib
import os
import re
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

LIMITS = {"copy_time_limit": 4, "transfer_idle_limit": 2}
PROGRAM = Path(__file__).with_name("hostile_servers.py")
SSH_SETTINGS = Path("/lab/server/sshd_config")


def on_server(*words):
    return ["lab-ctl", "server-exec", *map(str, words)]


def listens():
    return all(ct.run(*on_server("ss", "-Hln", "-A", kind, f"src {protocols.OTHER_SERVER}:{port}"))
               for kind, port in (("tcp", 21), ("tcp", 22), ("udp", 69)))


@contextlib.contextmanager
def hostile_servers(seed, with_sshd):
    """With sshd, what lies is its SFTP subsystem; otherwise SSH's first words are lies."""
    commands = []
    if with_sshd:
        file = Path("/lab/server/hostile_sshd_config")
        text = re.sub(r"(?m)^(ListenAddress|Subsystem) .*\n", "", SSH_SETTINGS.read_text())
        file.write_text(f"{text}ListenAddress {protocols.OTHER_SERVER}:22\nLogLevel ERROR\n"
                        f"Subsystem sftp /usr/bin/python3 {PROGRAM} - {seed} sftp\n")
        sshd = os.readlink(f"/proc/{ssh_daemon()}/exe")
        commands.append(on_server(sshd, "-D", "-f", file))
    commands.append(on_server("/usr/bin/python3", "-B", PROGRAM, protocols.OTHER_SERVER, seed))
    processes = []
    try:
        for command in commands:
            processes.append(subprocess.Popen(command, stdin=subprocess.DEVNULL,
                                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL))
            time.sleep(0.2 if command is not commands[-1] else 0)  # the port is sshd's
        ct.wait_for(listens, what="the hostile servers")
        yield
    finally:
        for process in processes:
            # Sessions of sshd and subsystems end with their connections.
            process.kill()
            process.wait()


def ssh_daemon():
    for entry in Path("/proc").glob("[0-9]*"):
        with contextlib.suppress(OSError):
            if str(SSH_SETTINGS).encode() in (entry / "cmdline").read_bytes():
                return entry.name
    raise AssertionError("no sshd")


def copy(campaign, manager, chance, protocol):
    running, startup = saves.running(), saves.startup()
    hostile = re.sub(rb"(?m)^hostname .*\n", b"hostname hostile\n", running)
    direction = chance.choice((ct.upload, ct.download))
    campaign.doing += f"; {direction.__name__} {protocol}"
    request = ct.Request(manager).create(*direction(protocols.OTHER_SERVER, "down.cfg",
                                                    protocol=protocol))
    request.activate()
    invariants.comes_to_rest(manager, within=LIMITS["copy_time_limit"] + 4)
    assert saves.startup() == startup, "the startup configuration is another one"
    assert saves.running() in (running, hostile), "the running configuration is not whole"
    state = request.get(ct.STATE)
    assert state != ct.STATE_FAILED or saves.running() == running, "failed, but in force"
    campaign.figures["successful" if state == ct.STATE_SUCCESSFUL else "failed"] += 1
    request.destroy()


def body(campaign):
    manager = FastManager()
    ct.run(*on_server("ip", "address", "add", f"{protocols.OTHER_SERVER}/24", "dev", "br0"))
    with protocols.settings(**LIMITS):
        for protocol in protocols.PROTOCOLS.values():
            jobs.Upload(manager, campaign.chance(0), 1000, protocol).succeeds()
        leftovers = invariants.Leftovers()
        open_files = invariants.descriptors(invariants.pid_of("agent"))
        for chance in campaign.rounds():
            with_sshd = chance.random() < 0.6
            campaign.doing = "with sshd" if with_sshd else "without sshd"
            with hostile_servers(f"{campaign.options.seed}/{campaign.round}", with_sshd):
                for name, protocol in protocols.PROTOCOLS.items():
                    copy(campaign, manager, chance, protocol)
                    campaign.figures[name] += 1
                    leftovers.none()
            jobs.Download(manager, chance, 1000, ct.TFTP).succeeds()
            assert not Path("/tmp/owned").exists(), "a word of a server was run"
    assert invariants.descriptors(invariants.pid_of("agent")) == open_files, "descriptors leak"
    invariants.password_is_nowhere(ct.SECRET)


campaign = Campaign(__doc__)
campaign.run(body)
