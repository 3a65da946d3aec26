#!/usr/bin/python3
"""Saves in the fabric, while at a random moment an agent or a system manager is killed, on the
switch that was asked or on a member.

What the error table says of a switch is compared with its startup configuration."""

import os
import re
import time
from pathlib import Path

from campaign import Campaign  # first: it sets the path

import copy_table as ct
import invariants
import saves
from snmp import FastManager

LIMIT = 2  # seconds for a member
AGENTS = dict(enumerate(os.environ["LAB_AGENTS"].split(), start=1))
STATES = {number: Path(f"/lab/switch{number}/disk/state") for number in AGENTS}
TYPICAL = 0.1  # seconds that a save in the fabric takes
SAVED = "saved"


class Fabric:
    def __init__(self, campaign):
        self.campaign = campaign
        self.manager = FastManager()
        self.longest = TYPICAL

    def change(self, chance):
        """Every switch runs something that its startup configuration does not hold."""
        name = f"hostname host{chance.randrange(10**9)}\n".encode()
        for state in STATES.values():
            file = state / "running.cfg"
            file.write_bytes(re.sub(rb"(?m)^hostname .*\n", name, file.read_bytes()))
        return ({number: saves.startup(state) for number, state in STATES.items()},
                {number: saves.running(state) for number, state in STATES.items()})

    def end(self, request):
        """Its state, None if its agent was killed."""
        ct.wait_for(lambda: request.get(ct.STATE) != ct.STATE_RUNNING, LIMIT + 5,
                    "the end of the save")
        return request.get(ct.STATE)

    def members_rest(self):
        """No member keeps a row of a save, or is still saving."""
        for number, agent in AGENTS.items():
            if number > 1:
                member = FastManager(agent)
                ct.wait_for(lambda: not member.walk(ct.ROOT), LIMIT + 5,
                            f"the end of the row on switch {number}")
            pid = invariants.pid_of("system-manager", number)
            ct.wait_for(lambda: not invariants.descendants(pid), LIMIT + 5,
                        f"the end of the save of switch {number}")

    def judge(self, state, request, old, new, hit):
        figures = self.campaign.figures
        told = saves.outcomes(self.manager, request) if state == ct.STATE_FAILED else {}
        for number in AGENTS:
            found = saves.startup(STATES[number])
            assert found in (old[number], new[number]), f"switch {number}: not whole"
            saved = found == new[number]
            text = told.get(number, SAVED if state == ct.STATE_SUCCESSFUL else None)
            if text == SAVED:
                assert saved, f"switch {number} is told to be saved, and is not"
            elif text and saved:
                # The one that was killed may have saved without saying so.
                assert number in hit, f"switch {number} is saved, and told: {text}"
                figures["saved, but not reported"] += 1
        word = {ct.STATE_SUCCESSFUL: "successful", ct.STATE_FAILED: "failed", None: "gone"}
        figures[word.get(state, "refused")] += 1

    def kill(self, number, daemon):
        invariants.killed(daemon, number)
        self.campaign.figures[f"{daemon} killed"] += 1

    def round(self, chance):
        number, daemon = chance.choice([*AGENTS]), chance.choice(("agent", "system-manager"))
        self.campaign.doing = f"{daemon} of switch {number}"
        old, new = self.change(chance)
        request = ct.Request(self.manager).create((ct.SOURCE, ct.RUNNING),
                                                  (ct.DESTINATION, ct.FABRIC_STARTUP))
        request.activate()
        time.sleep(chance.uniform(0, self.longest))
        is_late = request.get(ct.STATE) != ct.STATE_RUNNING
        # Half of the kills come while the save runs.
        self.longest *= 0.9 if is_late else 1.1
        self.campaign.figures["late" if is_late else "in time"] += 1
        self.kill(number, daemon)
        time.sleep(chance.choice((0, 0, chance.uniform(0, LIMIT + 1))))
        ct.lab_ctl(f"start-{daemon}", number)
        state = self.end(request)
        self.members_rest()
        # A late kill changes nothing of the outcome. The switch that was asked reports for all.
        hit = () if is_late else [*AGENTS] if number == 1 else [number]
        self.judge(state, request, old, new, hit)
        if request.exists():
            request.destroy()

    def works_again(self, chance):
        _, new = self.change(chance)
        request = ct.Request(self.manager).create((ct.SOURCE, ct.RUNNING),
                                                  (ct.DESTINATION, ct.FABRIC_STARTUP))
        request.copied().destroy()
        assert {number: saves.startup(state) for number, state in STATES.items()} == new


def body(campaign):
    with open("/lab/switch1/platform.conf", "a") as settings:
        settings.write(f"fabric_time_limit = {LIMIT}\n")
    fabric = Fabric(campaign)
    fabric.works_again(campaign.chance(0))
    leftovers = [invariants.Leftovers(number) for number in AGENTS]
    for chance in campaign.rounds():
        fabric.round(chance)
        fabric.works_again(chance)
        for one in leftovers:
            one.none()


campaign = Campaign(__doc__)
campaign.run(body)
