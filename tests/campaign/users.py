#!/usr/bin/python3
"""Hostile users of the switch's own machine, while copies and saves go on.

As a user without any rights they fill the bus's sockets, send to them, plant files and links in
/tmp, read what they can and signal every process. Each copy and save succeeds truly all the same;
nothing private can be read, and nothing is written through a link."""

import contextlib
import subprocess
from pathlib import Path

from campaign import Campaign  # first: it sets the path

import copy_table as ct
import invariants
import jobs
import local_attacks
import saves
from local_attacks import ATTACKER, ATTACKS, VICTIM
from protocols import PROTOCOLS
from snmp import FastManager


@contextlib.contextmanager
def attackers(campaign, seconds):
    """One process for each attack. What one of them could do, it has printed."""
    processes = {}
    for name in ATTACKS:
        with open(local_attacks.__file__, encoding="utf-8") as source:
            processes[name] = subprocess.Popen(
                ["setpriv", "--reuid", str(ATTACKER), "--regid", str(ATTACKER), "--clear-groups",
                 "/usr/bin/python3", "-B", "-", name, str(campaign.round), str(seconds)],
                cwd="/", stdin=source, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    for process in processes.values():
        assert process.stdout.readline() == "ready\n", process.stderr.read()
    try:
        yield
    finally:
        for process in processes.values():
            process.terminate()
        output = {name: process.communicate() for name, process in processes.items()}
    for name, (done, error) in output.items():
        assert not error, f"{name}: {error[-1000:]}"
        *succeeded, attempts = done.splitlines()
        assert not succeeded, f"{name}: {succeeded[:10]}"
        assert int(attempts) > 0, f"{name} has tried nothing"
        campaign.figures[f"{name} attempts"] += int(attempts)


def body(campaign):
    manager = FastManager()
    VICTIM.write_text("untouched\n")
    VICTIM.chmod(0o600)
    leftovers = None
    for chance in campaign.rounds():
        with attackers(campaign, 60):
            for name, protocol in PROTOCOLS.items():
                kind = chance.choice((jobs.Upload, jobs.Download))
                campaign.doing = f"{kind.__name__} by {name}"
                kind(manager, chance, 100_000, protocol).succeeds()
                campaign.figures["copies"] += 1
            for destination in saves.SAVES:
                campaign.doing = f"save to {destination}"
                jobs.Save(manager, chance, 1, destination).succeeds()
                campaign.figures["saves"] += 1
            invariants.comes_to_rest(manager)
        assert VICTIM.read_text() == "untouched\n", "written through a link"
        for path in Path("/tmp").iterdir():
            path.unlink()
        leftovers = leftovers or invariants.Leftovers()
        leftovers.none()
    invariants.password_is_nowhere(ct.SECRET)


campaign = Campaign(__doc__)
campaign.run(body)
