#!/usr/bin/python3
"""Copies in a row: every protocol, up and down, the outcome compared with the files."""

import re

from campaign import Campaign  # first: it sets the path

import copy_table as ct
import invariants
from protocols import PROTOCOLS, Switch, content
from snmp import FastManager

MOST = 300_000  # octets of a file


def upload(manager, chance, protocol):
    """The startup configuration, which goes out octet for octet."""
    whole = content(chance.randrange(MOST))
    Switch().startup(whole)
    name = f"up{chance.randrange(10**6)}.cfg"
    request = ct.Request(manager).create(*ct.upload(ct.SERVER4, name, ct.STARTUP, protocol))
    request.copied()
    file = ct.SERVER_ROOT / name
    assert file.read_bytes() == whole, f"{file.stat().st_size} octets arrived, not {len(whole)}"
    file.unlink()
    return request


def download(manager, chance, protocol):
    """One statement among comments."""
    line = f"hostname host{chance.randrange(10**9)}\n".encode()
    file = ct.serve("down.cfg", content(chance.randrange(MOST)) + b"\n" + line)
    expected = re.sub(rb"(?m)^hostname .*\n", line, Switch().running())
    request = ct.Request(manager).create(*ct.download(ct.SERVER4, file.name, protocol=protocol))
    request.copied()
    assert Switch().running() == expected, "the running configuration is another one"
    file.unlink()
    return request


def body(campaign):
    manager, leftovers = FastManager(), None
    for chance in campaign.rounds():
        for name, protocol in PROTOCOLS.items():
            direction = chance.choice((upload, download))
            campaign.doing = f"{direction.__name__} by {name}"
            direction(manager, chance, protocol).destroy()
            campaign.figures[f"{name} {direction.__name__}s"] += 1
            invariants.comes_to_rest(manager)
            # The first copy of each protocol may leave what stays, such as host keys.
            if leftovers:
                leftovers.none()
        assert not [*ct.SERVER_ROOT.iterdir()]
        if not leftovers:
            leftovers = invariants.Leftovers()
            open_files = invariants.descriptors(ct.agent_pid())
    assert invariants.descriptors(ct.agent_pid()) == open_files, "the agent leaks descriptors"
    invariants.password_is_nowhere(ct.SECRET)


campaign = Campaign(__doc__)
campaign.run(body)
