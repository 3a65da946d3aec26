"""Copies and saves whose true outcome is known: what a manager starts, and what it must find."""

import re

import copy_table as ct
import saves
from protocols import Switch, content


class Job:
    """One request on the first switch. `allowed()` holds whatever happens, `done()` if it was
    successful."""

    def __init__(self, manager, chance, most):
        self.manager, self.chance, self.switch = manager, chance, Switch()
        self.padding = content(chance.randrange(most))
        self.running, self.startup = saves.running(), saves.startup()
        self.request = ct.Request(manager)

    def check(self, found, *allowed):
        assert found in allowed, (
            f"{self}: {len(found)} octets, none of the allowed {[len(one) for one in allowed]}")

    def succeeds(self, within=15):
        self.request.activate()
        end = self.request.finished(within)
        assert end == (ct.STATE_SUCCESSFUL, ct.GENERAL), (
            f"{self}: state and cause {end}: {ct.run('cmdshell', '-c', 'show copies')[:500]}")
        self.allowed()
        self.done()
        self.forget()

    def forget(self):
        """Takes the request and its files away."""
        if self.request.exists():
            self.request.destroy()
        for file in ct.SERVER_ROOT.iterdir():
            file.unlink()


class Upload(Job):
    """The startup configuration, which goes out octet for octet."""

    def __init__(self, manager, chance, most, protocol):
        super().__init__(manager, chance, most)
        self.switch.startup(self.padding)
        self.startup = self.padding
        self.file = ct.SERVER_ROOT / f"up{chance.randrange(10**6)}.cfg"
        self.request.create(*ct.upload(ct.SERVER4, self.file.name, ct.STARTUP, protocol))

    def allowed(self):
        self.check(saves.running(), self.running)
        self.check(saves.startup(), self.startup)

    def arrived(self):
        return self.file.read_bytes() if self.file.exists() else None

    def done(self):
        # A TFTP server confirms the last block before it writes it.
        ct.wait_for(self.is_done, 2, f"{self}: what has arrived")

    def is_done(self):
        return self.arrived() == self.padding


class Download(Job):
    """One statement among comments."""

    def __init__(self, manager, chance, most, protocol):
        super().__init__(manager, chance, most)
        line = f"hostname host{chance.randrange(10**9)}\n".encode()
        self.expected = re.sub(rb"(?m)^hostname .*\n", line, self.running)
        ct.serve("down.cfg", self.padding + b"\n" + line)
        self.request.create(*ct.download(ct.SERVER4, "down.cfg", protocol=protocol))

    def allowed(self):
        self.check(saves.running(), self.running, self.expected)
        self.check(saves.startup(), self.startup)

    def done(self):
        self.check(saves.running(), self.expected)

    def is_done(self):
        return saves.running() == self.expected


class Save(Job):
    """What runs is another configuration than the startup one."""

    def __init__(self, manager, chance, most, destination):
        super().__init__(manager, chance, most)
        self.running = re.sub(rb"(?m)^hostname .*\n",
                              f"hostname host{chance.randrange(10**9)}\n".encode(), self.running)
        (self.switch.state / "running.cfg").write_bytes(self.running)
        self.request.create((ct.SOURCE, ct.RUNNING), (ct.DESTINATION, destination))

    def allowed(self):
        self.check(saves.running(), self.running)
        self.check(saves.startup(), self.startup, self.running)

    def done(self):
        self.check(saves.startup(), self.running)

    def is_done(self):
        return saves.startup() == self.running
