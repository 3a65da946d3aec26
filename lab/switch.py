"""A switch of the lab: its configuration and folders, its agent and its system manager."""

import os
import shlex
import socket
import subprocess
from pathlib import Path

import frr
import network
from daemons import (
    BUILD, COMMUNITY, LAB, SCRIPTS, UNPACKED, Daemon, Failure, folder, output_of,
    private_folder_of_size, succeeds,
)

OPERATOR = "operator"  # the manager's SNMPv3 user
AUTHENTICATION, PRIVACY = "lab-authentication", "lab-privacy-key"
FABRIC_USER = "fabric"  # the SNMPv3 user of the other switches' system managers
FABRIC_AUTHENTICATION, FABRIC_PRIVACY = "fabric-authentication", "fabric-privacy-key"
SYSTEM_MANAGER = 3  # its service access point on the message bus


def home(number):
    return LAB / f"switch{number}"


def environment(number):
    """The environment that makes the platform's programs run on this switch."""
    return {
        "ULMO_STATE_DIR": str(home(number) / "disk" / "state"),
        "ULMO_RUN_DIR": str(home(number) / "run"), "ULMO_CONF": str(home(number) / "platform.conf")
    }


def wwn(number):
    return f"20:00:00:00:00:00:00:{number:02x}"


class Switch:
    def __init__(self, options, number):
        self.options, self.number = options, number
        self.address4, self.address6 = network.switch_addresses(number)
        self.home = home(number)
        self.disk = self.home / "disk"
        self.state = self.disk / "state"
        self.work = self.disk / "work"
        self.clock = self.home / "clock"
        self.agent = self.system_manager = None
        self.has_frr = options["frr"] and number == 1  # the only one in FRR's network

    def prepare(self):
        private_folder_of_size(self.disk, dict(self.options["small_disks"]).get(self.number))
        folder(self.state, 0o700)
        folder(self.work)
        folder(self.home / "run")
        folder(self.home / "agent", 0o700)
        self._write_settings()
        self._write_agent_settings()
        self.set_clock(self.options["faketime"] or "+0")
        self.agent = self._agent()
        system_manager = ("/ulmo/bin/wardend",)
        if self.has_frr:
            folder(self.home / "agent-persistent", 0o700)
            frr.give_to_agent(self.home)
            system_manager = frr.as_agent(*system_manager)
        self.system_manager = Daemon(f"wardend{self.number}",
                                     network.on_switch(self.number, *system_manager),
                                     self._system_manager_listens,
                                     environment=environment(self.number), ends_with=(0,))

    def seed(self):
        """Gives the switch a realistic configuration through its own command line. It does so
        before the system manager runs, which would report the save later."""
        text = self.home / "first.cfg"
        text.write_text(FIRST_CONFIGURATION.format(address=self.address4))
        for command in (f"configure {text}", "copy running-config startup-config"):
            done = subprocess.run(["/ulmo/bin/cmdshell", "-c", command],
                                  env={**os.environ,
                                       **environment(self.number)}, stdin=subprocess.DEVNULL,
                                  stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
            if done.returncode != 0:
                raise Failure(f"cmdshell -c '{command}' failed: {done.stdout}")

    def set_clock(self, spec):
        """The agent's clock in a lab with --faketime; may be set while the agent runs."""
        new = self.clock.with_suffix(".new")
        new.write_text(f"{spec}\n")
        new.rename(self.clock)

    def _write_settings(self):
        # Tests examine the debug records.
        lines = [
            f"management_interface = {network.DEVICE}", f"wwn = {wwn(self.number)}", "history = all"
        ]
        if self.options["chassis_type"] is not None:
            lines.append(f"chassis_type = {self.options['chassis_type']}")
        if self.has_frr:
            lines.append("device_backend = frr")
        if self.options["vrf"]:
            lines.append(f"vrf_context = {self.options['vrf']}")
        others = [
            number for number in range(1, self.options["switches"] + 1) if number != self.number
        ]
        for other in others:
            address4, address6 = network.switch_addresses(other)
            # Both address families are used.
            lines.append(
                f"fabric_member = {wwn(other)} "
                f"{address6 if other % 2 == 1 and other > 1 else address4}"
            )
        if others:
            lines += [
                f"fabric_user = {FABRIC_USER}", f"fabric_auth_passphrase = {FABRIC_AUTHENTICATION}",
                f"fabric_priv_passphrase = {FABRIC_PRIVACY}"
            ]
        file = self.home / "platform.conf"
        file.touch(0o600)
        file.write_text("\n".join(lines) + "\n")

    def _write_agent_settings(self):
        greeting = self.home / "greeting"
        greeting.write_text("#!/bin/sh\necho hello from $$\n")
        greeting.chmod(0o755)
        lines = [
            "# An engine id that stays, so that receivers and tests may name it.",
            f"exactEngineID 0x80001f8804{self.number:02x}6c6162",
            f"agentAddress udp:{self.address4}:161,udp6:[{self.address6}]:161",
            f"createUser {OPERATOR} SHA-256 {AUTHENTICATION} AES {PRIVACY}",
            f"rwuser {OPERATOR} authPriv",
            f"rwcommunity {COMMUNITY}",
            "# Other switches' system managers may use the copy table and read the last save.",
            f"createUser {FABRIC_USER} SHA-256 {FABRIC_AUTHENTICATION} AES {FABRIC_PRIVACY}",
            f"group fabric usm {FABRIC_USER}",
            "view fabric-seen included .1.3.6.1.2.1.1",
            "view fabric-seen included .1.3.6.1.4.1.8072.1.3.2",
            "view fabric-seen included .1.3.6.1.4.1.41927.9.96",
            "view fabric-written included .1.3.6.1.4.1.41927.9.96",
            'access fabric "" usm priv exact fabric-seen fabric-written none',
            'extend -cacheTime 1 last-save /ulmo/bin/cmdshell -c "show last-save"',
            'extend -cacheTime 1 last-copy /ulmo/bin/cmdshell -c "show copies"',
            "dontLogTCPWrappersConnects yes",
            "doNotRetainNotificationLogs yes",
            f"trap2sink {network.SERVER4}:162 {COMMUNITY}",
            f"sysName lab-switch{self.number}",
            "sysLocation the lab",
            "sysContact nobody",
            f"extend -cacheTime 1 greeting {greeting}",
        ]
        if not self.options["no_module"]:
            lines.append(f"dlmod config_copy_mib {BUILD / 'lib' / 'config_copy_mib.so'}")
        (self.home / "agent" / "snmpd.conf").write_text("\n".join(lines) + "\n")

    def _agent(self):
        settings = {
            "SNMPCONFPATH": str(self.home / "agent"),
            "SNMP_PERSISTENT_DIR": str(self.home / "agent-persistent"), **environment(self.number)
        }
        preloaded = []
        runtime = BUILD / "lib" / "libclang_rt.asan.so"
        if runtime.exists():  # the build has sanitizers
            preloaded += [runtime, BUILD / "lib" / "sanitized_agent.so"]
            settings |= {
                # A small quarantine, so that what is freed does not look like growth.
                "ASAN_OPTIONS": "quarantine_size_mb=16",
                "LSAN_OPTIONS": f"suppressions={SCRIPTS}/leaks.txt:print_suppressions=0",
                "UBSAN_OPTIONS": "print_stacktrace=1"
            }
        if self.options["faketime"]:
            library = next(Path("/usr/lib").glob("*/faketime/libfaketime.so.1"), None)
            if library is None:
                raise Failure(
                    "--faketime needs the package faketime: scripts/install-packages.sh installs it"
                )
            preloaded.append(library)
            settings |= {"FAKETIME_TIMESTAMP_FILE": str(self.clock), "FAKETIME_NO_CACHE": "1"}
        if preloaded:
            settings["LD_PRELOAD"] = ":".join(map(str, preloaded))
        command = network.on_switch(self.number, *shlex.split(self.options["agent_under"]),
                                    UNPACKED / "root-snmpd/usr/sbin/snmpd", "-f", "-Le", "-I",
                                    "-smux,mteTrigger,mteTriggerConf",
                                    *(("-u", frr.AGENT_USER, "-g", frr.AGENT_USER)
                                      if self.has_frr else ()))
        return Daemon(f"snmpd{self.number}", command, self._agent_answers, cwd=self.work,
                      environment=settings)

    def _agent_answers(self):
        # A request sent before the agent listens is lost, so it is repeated soon.
        once = ("-r0", "-t0.3", "-On", "-Oqv", self.address4)
        if not succeeds("snmpget", *once, ".1.3.6.1.2.1.1.3.0"):
            return False
        # The agent only logs that it can't load a module; its table of modules shows it
        # (dlmodStatus 1: loaded).
        return self.options["no_module"] or output_of(
            "snmpwalk", *once, ".1.3.6.1.4.1.2021.13.14.2.1.5").strip() == "1"

    def _system_manager_listens(self):
        with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as connection:
            try:
                connection.connect(str(self.home / "run" / "msgbus" / str(SYSTEM_MANAGER)))
            except OSError:
                return False
        return True


FIRST_CONFIGURATION = """\
hostname lab-switch
!
interface mgmt0
 description management
 ip address {address}/24
"""
