#!/usr/bin/python3
"""Copies in a row: every protocol, up and down, the outcome compared with the files."""

from campaign import Campaign  # first: it sets the path

import copy_table as ct
import invariants
import jobs
from protocols import PROTOCOLS
from snmp import FastManager

MOST = 300_000  # octets of a file


def body(campaign):
    manager, leftovers = FastManager(), None
    for chance in campaign.rounds():
        for name, protocol in PROTOCOLS.items():
            kind = chance.choice((jobs.Upload, jobs.Download))
            campaign.doing = f"{kind.__name__} by {name}"
            kind(manager, chance, MOST, protocol).succeeds()
            campaign.figures[f"{name} {kind.__name__.lower()}s"] += 1
            invariants.comes_to_rest(manager)
            if leftovers:
                leftovers.none()
        # The first copy of each protocol may leave what stays, such as host keys.
        if not leftovers:
            leftovers = invariants.Leftovers()
            open_files = invariants.descriptors(ct.agent_pid())
    assert invariants.descriptors(ct.agent_pid()) == open_files, "the agent leaks descriptors"
    invariants.password_is_nowhere(ct.SECRET)


campaign = Campaign(__doc__)
campaign.run(body)
