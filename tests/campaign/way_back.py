#!/usr/bin/python3
"""A restore under confirm_limit, of which something is killed at a random moment.

The running configuration is always the one before or the restored one, whole. In the end it is the
restored one if that has been saved, and otherwise the one before."""

import contextlib
import os
import signal
import threading
import time

from campaign import Campaign  # first: it sets the path

import copy_table as ct
import invariants
import protocols
import saves
from snmp import FastManager

LIMIT = 1  # second
NOTHING_WAITS = "no change waits to be saved"


# The daemons, and whose child is to be killed: the worker of the agent, and the system manager's
# process for a save or the way back.
DAEMONS = ("agent", "system-manager")
PARENTS = {"worker": "agent", "save or way back": "system-manager"}
VICTIMS = (*DAEMONS, *PARENTS)
# When the interesting moments of a daemon are, in seconds after the activation.
MOMENTS = ((0, 0.03), (0, LIMIT), (LIMIT - 0.02, LIMIT + 0.06))
# How long a child has lived at most when it is killed. What comes too late makes the next one come
# earlier.
longest = {"worker": 0.005, "save or way back": 0.001}


class Round:
    def __init__(self, campaign, manager, chance):
        self.campaign, self.chance = campaign, chance
        self.former, self.saved = saves.running(), saves.startup()
        name = f"hostname host{chance.randrange(10**9)}\n"
        vlans = "".join(f"vlan {number}\n" for number in range(2, chance.randrange(3, 2000)))
        ct.serve("new.cfg", f"configuration replace\n{name}{vlans}")
        self.restored = f"{name}{vlans}end\n".encode()
        self.restore = ct.Request(manager).create(*ct.download(ct.SERVER4, "new.cfg"))
        self.save = saves.save(manager, notify=ct.FALSE)
        self.victim = VICTIMS[campaign.round % len(VICTIMS)]
        self.moment = chance.uniform(*chance.choice(MOMENTS))
        # Of two rounds, one is saved; at a moment that may come too late.
        self.save_moment = chance.uniform(0.02, LIMIT + 0.2) if chance.random() < 0.5 else None
        campaign.doing = f"{self.victim} killed after {self.moment:.3f} s, save {self.save_moment}"

    def whole(self):
        running, startup = saves.running(), saves.startup()
        assert running in (self.former, self.restored), (
            f"running: {len(running)} octets that are neither configuration")
        assert startup in (self.saved, self.former, self.restored), (
            f"startup: {len(startup)} octets that are none of the configurations")

    def play(self):
        """Kills, and saves, when their time has come."""
        self.restore.activate()
        began = time.monotonic()
        todo = [] if self.save_moment is None else [(self.save_moment, self.begin_save)]
        if self.victim == "worker":
            self.kill_child()
        elif self.victim in DAEMONS:
            todo.append((self.moment, self.kill_daemon))
        elif todo:
            todo = [(self.save_moment, self.kill_save)]
        for moment, act in sorted(todo, key=lambda one: one[0]):
            while time.monotonic() < began + moment:
                self.whole()
                time.sleep(min(0.01, max(0, began + moment - time.monotonic())))
            act()
        if self.victim == "save or way back" and not todo:
            self.kill_child()

    def kill_daemon(self):
        invariants.killed(self.victim)
        self.whole()
        ct.lab_ctl(f"start-{self.victim}")
        self.campaign.figures[f"{self.victim} killed"] += 1

    def kill_save(self):
        asking = threading.Thread(target=self.begin_save)
        asking.start()  # it returns when the save may have ended
        self.kill_child()
        asking.join()

    def kill_child(self):
        """Kills the next child that appears, if it is not faster."""
        parent = invariants.pid_of(PARENTS[self.victim])
        deadline = time.monotonic() + LIMIT + 0.5
        while not (children := ct.children(parent)) and time.monotonic() < deadline:
            self.whole()
        time.sleep(self.chance.uniform(0, longest[self.victim]))
        hits = [pid for pid in children if ct.process_state(pid) not in (None, "Z")]
        for pid in hits:
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)
        self.whole()
        longest[self.victim] *= 1.05 if hits else 0.8
        self.campaign.figures[f"{self.victim} killed" if hits else "missed"] += 1

    def begin_save(self):
        # Refused while the restore runs or on the way back, not answered by a killed agent.
        with contextlib.suppress(ct.SnmpError):
            self.save.activate()

    def comes_to_rest(self):
        deadline = time.monotonic() + 10
        state = saves.STATE_DIRECTORY
        while True:
            self.whole()
            # A way-back.journal.new of a killed process is no journal; the next one replaces it.
            waits = [name for name in ("way-back.journal", "way-back.waiting")
                     if (state / name).exists()]
            busy = [pid for name in ("agent", "system-manager")
                    for pid in ct.children(invariants.pid_of(name))]
            if not waits and not busy:
                return
            assert time.monotonic() < deadline, f"it does not come to rest: {waits} {busy}"
            time.sleep(0.02)

    def judge(self):
        self.comes_to_rest()
        is_saved = saves.startup() == self.restored
        expected = self.restored if is_saved else self.former
        assert saves.running() == expected, (
            "what was saved is gone" if is_saved else "what was not saved is still in force")
        pending = ct.run("cmdshell", "-c", "show pending").strip()
        assert pending == NOTHING_WAITS, pending
        if self.save.get(ct.STATE) == ct.STATE_SUCCESSFUL:
            assert saves.startup() in (self.former, self.restored)
        self.campaign.figures["kept" if is_saved else "came back"] += 1

    def forget(self):
        for request in (self.restore, self.save):
            if request.exists():
                request.destroy()


def body(campaign):
    manager = FastManager()
    before, saved = saves.running(), saves.startup()
    with protocols.settings(confirm_limit=LIMIT):
        for chance in campaign.rounds():
            one = Round(campaign, manager, chance)
            one.play()
            one.judge()
            one.forget()
    for name, content in (("running.cfg", before), ("system.cfg", saved)):
        (ct.STATE_DIRECTORY / name).write_bytes(content)


campaign = Campaign(__doc__)
campaign.run(body)
