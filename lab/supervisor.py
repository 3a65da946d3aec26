"""The first process of the lab's namespaces: sets the lab up, runs COMMAND, serves lab-ctl and
reports the outcome."""

import json
import os
import selectors
import shutil
import signal
import socket
import subprocess
import sys
from pathlib import Path

import frr
import network
import private_root
from daemons import (
    BUILD, LAB, LOG, SCRIPTS, SERVER_ROOT, TRAPS, UNPACKED, USER, Daemon, Failure, Receiver, folder,
    poll, system_log,
)
from file_server import FileServer
from switch import AUTHENTICATION, OPERATOR, PRIVACY, Switch, environment

LAB_FAILED = 125
SHOWN_LINES = 40
RELAYED = 1  # the switch whose link may be slow and lossy


# The requests of lab-ctl: which daemon of the switch, or which kind of the file server's daemons,
# and what is done to them.
COMMANDS = {
    "agent-pid": ("agent", Daemon.pid),
    "stop-agent": ("agent", Daemon.stop),
    "kill-agent": ("agent", Daemon.kill),
    "start-agent": ("agent", Daemon.start),
    "restart-agent": ("agent", Daemon.restart),
    "reload-agent": ("agent", Daemon.reload),
    "system-manager-pid": ("system_manager", Daemon.pid),
    "stop-system-manager": ("system_manager", Daemon.stop),
    "kill-system-manager": ("system_manager", Daemon.kill),
    "start-system-manager": ("system_manager", Daemon.start),
    "restart-system-manager": ("system_manager", Daemon.restart),
}
SERVER_COMMANDS = {
    "stop-server": Daemon.stop, "kill-server": Daemon.kill_family, "start-server": Daemon.start
}


class Lab:
    def __init__(self, job):
        self.job = job
        self.switches = [Switch(job, number) for number in range(1, job["switches"] + 1)]
        self.server = FileServer(job)
        self.daemons = []

    # Setting up

    def set_up(self):
        os.umask(0o022)
        repository, build, directory = (Path(self.job[name])
                                        for name in ("repository", "build_dir", "directory"))
        private_root.enter(
            [repository, build, directory],
            {UNPACKED: repository / "build" / "lab", BUILD: build, SCRIPTS: repository / "lab"},
            frr.layers() if self.job["frr"] else ())
        socket.sethostname("lab-switch")
        for path in (LOG, LAB / "bin", LAB / "manager", Path("/ulmo/bin")):
            folder(path)
        (LAB / "bin" / "lab-ctl").symlink_to(SCRIPTS / "lab-ctl")
        for program in (BUILD / "bin").glob("*"):
            (Path("/ulmo/bin") / program.name).symlink_to(program)
        self._describe_manager()
        self._start(system_log())
        network.make_server()
        if self.job["vrf"]:
            network.make_vrf(self.job["vrf"])
        self.server.prepare()
        self._join_switches()
        self._start_receiver()
        self._start(*self.server.daemons())
        if self.job["frr"]:
            frr.make_accounts()
            frr.prepare()
            frr.start()
        for switch in self.switches:
            switch.prepare()
            if not self.job["no_module"] and not switch.has_frr:
                switch.seed()
        self._start(*(switch.system_manager for switch in self.switches))
        self._start(*(switch.agent for switch in self.switches))

    def _describe_manager(self):
        os.environ |= {
            "SNMPCONFPATH": str(LAB / "manager"),
            "SNMP_PERSISTENT_DIR": str(LAB / "manager" / "persistent")
        }
        os.environ["PATH"] = f"{LAB}/bin:/ulmo/bin:{os.environ['PATH']}:/usr/sbin:/sbin"
        (LAB / "manager" / "snmp.conf").write_text(
            "mibs :\nhexOutputLength 0\ndefVersion 3\ndefSecurityLevel authPriv\n"
            f"defSecurityName {OPERATOR}\ndefAuthType SHA-256\ndefAuthPassphrase {AUTHENTICATION}\n"
            f"defPrivType AES\ndefPrivPassphrase {PRIVACY}\n")

    def _join_switches(self):
        for switch in self.switches:
            network.make_switch(switch.number)
        relayed = network.wants_relay(self.job)
        if relayed:
            # The device's number is fixed (Documentation/admin-guide/devices.txt); a chroot may
            # have no /dev/net.
            os.mknod(network.TUN, 0o600 | 0o020000, os.makedev(10, 200))
            command = network.relay_command(BUILD / "bin" / "link_relay", self.job, RELAYED)
            ends = (network.DEVICE, network.port_name(RELAYED))
            self._start(
                Daemon("link_relay", command,
                       lambda: all(Path(f"/sys/class/net/{name}").exists() for name in ends)))
        for switch in self.switches:
            network.connect_switch(switch.number, relayed and switch.number == RELAYED)
        for switch in self.switches:
            if not poll(lambda: network.settled(switch.number), 10):
                raise Failure(
                    f"the link between switch {switch.number} and server does not come up")

    def _start_receiver(self):
        daemons, pipe = Receiver().daemons()
        self._start(*daemons)
        for descriptor in pipe:
            os.close(descriptor)
        os.truncate(TRAPS, 0)

    def _start(self, *daemons):
        """Starts them in parallel."""
        for daemon in daemons:
            daemon.spawn()
        self.daemons += daemons
        for daemon in daemons:
            daemon.await_ready()

    # For lab-ctl

    def control(self, name, *words):
        """Executes a request of lab-ctl and returns what lab-ctl prints."""
        if name == "agent-clock":
            return self.set_clock(*words)
        if name == "new-host-key":
            return self.new_host_key()
        if name in SERVER_COMMANDS:
            for daemon in self.server.daemons(*words):
                SERVER_COMMANDS[name](daemon)
            return None
        kind, action = COMMANDS[name]
        return action(getattr(self._switch(*words), kind))

    def _switch(self, number="1"):
        if number not in (str(switch.number) for switch in self.switches):
            raise Failure(f"there is no switch {number}")
        return self.switches[int(number) - 1]

    def set_clock(self, spec, *number):
        if not self.job["faketime"]:
            raise Failure("the lab was made without --faketime")
        self._switch(*number).set_clock(spec)

    def new_host_key(self):
        self.control("stop-server", "ssh")
        self.server.new_host_key()
        self.control("start-server", "ssh")

    # While COMMAND runs

    def environment(self):
        first, agents = self.switches[0], " ".join(switch.address4 for switch in self.switches)
        return {
            **os.environ, **environment(first.number), "LAB_AGENT": first.address4,
            "LAB_AGENTS": agents, "LAB_SERVER4": self.server.addresses[4],
            "LAB_SERVER6": self.server.addresses[6], "LAB_SERVER_ROOT": str(SERVER_ROOT),
            "LAB_USER": USER, "LAB_PASSWORD": self.server.account.password, "LAB_STATE": str(
                first.state), "LAB_TRAPS": str(TRAPS), "LAB_LOG": str(LOG)
        }

    def run_command(self):
        """Runs COMMAND to its end and returns its status. If a daemon ends meanwhile, raises
        Failure."""
        directory = self.job["directory"]
        control = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        control.bind(str(LAB / "control"))
        control.listen()
        wake_read, wake_write = os.pipe()
        for descriptor in (wake_read, wake_write):
            os.set_blocking(descriptor, False)
        signal.signal(signal.SIGCHLD, lambda number, frame: None)
        signal.signal(signal.SIGINT, lambda number, frame: None)  # COMMAND's business
        signal.set_wakeup_fd(wake_write)
        try:
            command = subprocess.Popen(self.job["command"], env=self.environment(),
                                       cwd=directory if os.path.isdir(directory) else "/")
        except OSError as error:
            raise Failure(f"cannot run {self.job['command'][0]}: {error.strerror}") from None
        with selectors.DefaultSelector() as selector:
            selector.register(control, selectors.EVENT_READ)
            selector.register(wake_read, selectors.EVENT_READ)
            while True:
                self._reap(command)
                if command.returncode is not None:
                    status = command.returncode
                    return status if status >= 0 else 128 - status
                self._check_daemons()
                for key, _ in selector.select():
                    if key.fileobj is control:
                        self._serve(control.accept()[0])
                    else:
                        os.read(wake_read, 4096)

    def _reap(self, command):
        """Reaps ended children: our own through their objects, and orphans."""
        ours = {
            process.pid: process
            for process in (command, *(daemon.process for daemon in self.daemons))
            if process is not None
        }
        while True:
            try:
                ended = os.waitid(os.P_ALL, 0, os.WEXITED | os.WNOHANG | os.WNOWAIT)
            except ChildProcessError:
                return
            if ended is None:
                return
            if ended.si_pid in ours:
                ours[ended.si_pid].wait()
            else:
                os.waitpid(ended.si_pid, 0)

    def _check_daemons(self):
        for daemon in self.daemons:
            if daemon.wanted and daemon.ended():
                status = daemon.process.returncode
                raise Failure(
                    f"{daemon.name} ended "
                    f"{f'by signal {-status}' if status < 0 else f'with status {status}'}",
                    daemon)

    def _serve(self, connection):
        with connection:
            try:
                answer = {
                    "status": 0,
                    "text": str(self.control(*json.loads(connection.makefile().readline())) or "")
                }
            except Failure as failure:
                answer = {"status": 1, "text": str(failure)}
            connection.sendall(json.dumps(answer).encode() + b"\n")

    def stop_switches(self):
        """Stops the agents first, because they send requests to the system managers."""
        for daemon in (*(switch.agent for switch in self.switches), *(switch.system_manager
                                                                      for switch in self.switches)):
            if daemon.wanted:
                daemon.stop()

    def keep_logs(self):
        if self.job["keep_logs"]:
            target = Path(self.job["directory"]) / self.job["keep_logs"]
            shutil.copytree(LOG, target, dirs_exist_ok=True)
            shutil.copy(TRAPS, target)


def show_log(daemon):
    lines = daemon.log.read_text(errors="replace").splitlines()[-SHOWN_LINES:]
    print(f"lab: the end of {daemon.log.name}:", *lines, sep="\n", file=sys.stderr)


def main():
    signal.signal(signal.SIGTERM, lambda number, frame: sys.exit(128 + number))
    lab = Lab(json.loads(sys.argv[1]))
    try:
        lab.set_up()
        status = lab.run_command()
        lab._check_daemons()
        lab.stop_switches()
    except Failure as failure:
        print(f"lab: {failure}", file=sys.stderr)
        if failure.daemon is not None:
            show_log(failure.daemon)
        status = LAB_FAILED
    except (OSError, subprocess.CalledProcessError) as error:
        print(f"lab: {error}", file=sys.stderr)
        status = LAB_FAILED
    lab.keep_logs()
    sys.stdout.flush()
    sys.exit(status)


main()
