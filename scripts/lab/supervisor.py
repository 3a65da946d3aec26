"""The first process of the lab's namespaces: sets the lab up, runs COMMAND, serves lab-ctl and tells how it went."""

import json
import os
import selectors
import shutil
import signal
import socket
import subprocess
import sys
from pathlib import Path

import network
import private_root
from daemons import (AUTHENTICATION, LAB, LOG, OPERATOR, PRIVACY, SERVER_ROOT, TRAPS, USER, Daemon, Failure, Receiver, Switch, folder, poll, succeeds)
from file_server import FileServer

LAB_FAILED = 125
SHOWN_LINES = 40


class Lab:
    def __init__(self, orders):
        self.orders = orders
        self.unpacked = Path(orders["repository"]) / "build" / "lab"
        self.build = Path(orders["build_dir"])
        self.switch = Switch(orders)
        self.server = FileServer(orders, self.unpacked)
        self.agent = None
        self.daemons = []  # those that must run until the end
        self.agent_wanted = False

    # Setting up

    def set_up(self):
        private_root.enter([Path(self.orders["repository"]), self.build, Path(self.orders["directory"])])
        os.umask(0o022)
        socket.sethostname("lab-switch")
        for path in (LOG, LAB / "bin", LAB / "manager", Path("/ulmo/bin")):
            folder(path)
        (LAB / "bin" / "lab-ctl").symlink_to(Path(self.orders["repository"]) / "scripts" / "lab" / "lab-ctl")
        for program in (self.build / "bin").glob("*"):
            (Path("/ulmo/bin") / program.name).symlink_to(program)
        self._describe_manager()
        network.make_server()
        self.server.prepare()
        self._join_switch()
        self._start_receiver()
        self._start(*self.server.daemons())
        self.switch.prepare()
        if not self.orders["no_module"]:
            self.switch.seed()
        self.agent = self.switch.agent(self.unpacked)
        self.start_agent()

    def _describe_manager(self):
        os.environ |= {"SNMPCONFPATH": str(LAB / "manager"), "SNMP_PERSISTENT_DIR": str(LAB / "manager" / "persistent")}
        os.environ["PATH"] = f"{LAB}/bin:/ulmo/bin:{os.environ['PATH']}:/usr/sbin:/sbin"
        (LAB / "manager" / "snmp.conf").write_text(
            "mibs :\nhexOutputLength 0\ndefVersion 3\ndefSecurityLevel authPriv\n"
            f"defSecurityName {OPERATOR}\ndefAuthType SHA-256\ndefAuthPassphrase {AUTHENTICATION}\n"
            f"defPrivType AES\ndefPrivPassphrase {PRIVACY}\n")

    def _join_switch(self):
        relayed = network.wants_relay(self.orders)
        if relayed:
            # The device's number is fixed (Documentation/admin-guide/devices.txt); a chroot may have no /dev/net.
            os.mknod(network.TUN, 0o600 | 0o020000, os.makedev(10, 200))
            device, port = Switch.device, network.port_name(self.switch.number)
            command = network.relay_command(self.build / "bin" / "link_relay", self.orders, self.switch.number, device)
            self._start(Daemon("link_relay", command, lambda: all(Path(f"/sys/class/net/{name}").exists() for name in (device, port))))
        network.connect_switch(self.switch.number, Switch.device, relayed)
        if not poll(lambda: network.settled(Switch.device), 10):
            raise Failure("the link between switch and server does not come up")

    def _start_receiver(self):
        daemons, pipe = Receiver(self.unpacked).daemons()
        self._start(*daemons)
        for descriptor in pipe:
            os.close(descriptor)
        os.truncate(TRAPS, 0)

    def _start(self, *daemons):
        for daemon in daemons:
            daemon.start()
        for daemon in daemons:
            daemon.await_ready()
            self.daemons.append(daemon)

    # The file server, for lab-ctl

    def start_server(self, kind):
        self._start(*(daemon for daemon in self.server.daemons(kind) if daemon.ended()))

    def stop_server(self, kind):
        for daemon in self._let_go(kind):
            daemon.stop()

    def kill_server(self, kind):
        for daemon in self._let_go(kind):
            daemon.kill()

    def new_host_key(self):
        self.stop_server("ssh")
        self.server.new_host_key()
        self.start_server("ssh")

    def _let_go(self, kind):
        """The daemons of that kind that run. From now on they may end."""
        running = [daemon for daemon in self.server.daemons(kind) if daemon in self.daemons]
        self.daemons = [daemon for daemon in self.daemons if daemon not in running]
        return running

    # The agent, for lab-ctl

    def start_agent(self):
        if self.agent.ended():
            self.agent.start()
            self.agent.await_ready()
            self.agent_wanted = True

    def stop_agent(self):
        self.agent_wanted = False
        self.agent.stop()

    def restart_agent(self):
        self.stop_agent()
        self.start_agent()

    def reload_agent(self):
        self.agent.process.send_signal(signal.SIGHUP)
        self.agent.await_ready()

    def agent_pid(self):
        if self.agent.ended():
            raise Failure("the agent does not run")
        return str(self.agent.process.pid)

    def agent_clock(self, spec):
        if not self.orders["faketime"]:
            raise Failure("the lab was made without --faketime")
        new = self.switch.clock.with_suffix(".new")
        new.write_text(f"{spec}\n")
        new.rename(self.switch.clock)

    # While COMMAND runs

    def environment(self):
        return {**os.environ, **self.switch.environment(), "LAB_AGENT": self.switch.address4, "LAB_SERVER4": network.SERVER4,
                "LAB_SERVER6": network.SERVER6, "LAB_SERVER_ROOT": str(SERVER_ROOT), "LAB_USER": USER, "LAB_PASSWORD": self.server.account.password,
                "LAB_STATE": str(self.switch.state), "LAB_TRAPS": str(TRAPS), "LAB_LOG": str(LOG)}

    def run_command(self):
        """Runs COMMAND to its end and returns its status; a daemon that ends meanwhile is a Failure."""
        directory = self.orders["directory"]
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
            command = subprocess.Popen(self.orders["command"], env=self.environment(), cwd=directory if os.path.isdir(directory) else "/")
        except OSError as error:
            raise Failure(f"cannot run {self.orders['command'][0]}: {error.strerror}") from None
        with selectors.DefaultSelector() as selector:
            selector.register(control, selectors.EVENT_READ)
            selector.register(wake_read, selectors.EVENT_READ)
            while True:
                self._reap(command)
                if command.returncode is not None:
                    return command.returncode if command.returncode >= 0 else 128 - command.returncode
                self._check_daemons()
                for key, _ in selector.select():
                    if key.fileobj is control:
                        self._serve(control.accept()[0])
                    else:
                        os.read(wake_read, 4096)

    def _reap(self, command):
        """Collects ended children: our own through their objects, and those that lost their parent."""
        ours = {process.pid: process for process in (command, *(daemon.process for daemon in (*self.daemons, self.agent))) if process is not None}
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
        for daemon in (*self.daemons, *((self.agent,) if self.agent_wanted else ())):
            if daemon.ended():
                status = daemon.process.returncode
                raise Failure(f"{daemon.name} ended {f'by signal {-status}' if status < 0 else f'with status {status}'}", daemon)

    def _serve(self, connection):
        commands = {"start-agent": self.start_agent, "stop-agent": self.stop_agent, "restart-agent": self.restart_agent,
                    "reload-agent": self.reload_agent, "agent-pid": self.agent_pid, "agent-clock": self.agent_clock,
                    "start-server": self.start_server, "stop-server": self.stop_server, "kill-server": self.kill_server,
                    "new-host-key": self.new_host_key}
        with connection:
            name, *words = json.loads(connection.makefile().readline())
            try:
                answer = {"status": 0, "text": commands[name](*words) or ""}
            except Failure as failure:
                answer = {"status": 1, "text": str(failure)}
            except (KeyError, TypeError):
                answer = {"status": 2, "text": f"no such command: {name}"}
            connection.sendall(json.dumps(answer).encode() + b"\n")

    def keep_logs(self):
        if self.orders["keep_logs"]:
            target = Path(self.orders["directory"]) / self.orders["keep_logs"]
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
        if lab.agent_wanted:
            lab.stop_agent()
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
