"""The file server: TFTP, FTP and SSH on their default ports, one account, one folder that all of
them serve."""

import os
import secrets
import string
import subprocess
import sys
from pathlib import Path

import network
import shadow
from daemons import (
    LAB, SCRIPTS, SERVER_ROOT, UNPACKED, USER, Daemon, folder, output_of, private_folder_of_size,
)


class Account:
    """The account on the file server, in the lab's copies of the account files."""

    def __init__(self, home):
        self.home = home
        # Letters and digits in turn: a word of a message is never a part of it, which would hide
        # the message.
        self.password = "".join(
            secrets.choice(characters) for characters in [string.ascii_letters, string.digits] * 7)
        taken = {
            int(line.split(":")[2]) for line in Path("/etc/passwd").read_text().splitlines()
            if line.count(":") >= 6
        }
        self.id = next(number for number in range(20000, 60000) if number not in taken)
        self._append("/etc/passwd",
                     f"{USER}:x:{self.id}:{self.id}:the lab's account:{home}:/bin/bash")
        self._append("/etc/group", f"{USER}:x:{self.id}:")
        hashed = shadow.hashed(self.password)
        self._append("/etc/shadow", f"{USER}:{hashed}:19000:0:99999:7:::")

    @staticmethod
    def _append(name, line):
        with open(name, "a") as file:
            file.write(line + "\n")


class FileServer:
    """The host at the other end of the copies. Its daemons run in the namespace `server`."""

    def __init__(self, options):
        self.options = options
        self.home = SERVER_ROOT.parent
        self.addresses = network.file_server_addresses(options)
        self.account = None
        self.kinds = {}

    def prepare(self):
        folder(self.home)
        private_folder_of_size(SERVER_ROOT, self.options["server_disk"])
        self.account = Account(SERVER_ROOT)
        os.chown(SERVER_ROOT, self.account.id, self.account.id)
        self.kinds = {"tftp": self._tftp(), "ftp": self._ftp(), "ssh": self._ssh()}

    def daemons(self, kind=None):
        """All daemons, or those of one kind: tftp, ftp or ssh."""
        kinds = [kind] if kind else self.kinds
        return [daemon for each in kinds for daemon in self.kinds[each]]

    def _tftp(self):
        daemons = []
        for version, address in self.addresses.items():
            if self.options["tftp_server"] == "atftpd":
                # On its own it listens on IPv4 only; with an inherited socket it serves either
                # family.
                command = [
                    sys.executable, "-B", SCRIPTS / "on_socket.py", address, "69", USER,
                    UNPACKED / "root-atftpd/usr/sbin/atftpd", "--tftpd-timeout", "86400",
                    "--logfile", "-", "--verbose=6", SERVER_ROOT
                ]
            else:
                command = [
                    UNPACKED / "root-tftpd-hpa/usr/sbin/in.tftpd", "--foreground", "--verbose",
                    "--user", USER, "--create", f"--ipv{version}", "--address",
                    f"{in_url(address)}:69", "--secure", SERVER_ROOT
                ]
            daemons.append(
                Daemon(f"tftp-ipv{version}", network.on_server(*command),
                       self._serves_file(f"tftp://{in_url(address)}/")))
        return daemons

    def _ftp(self):
        """The server's own anonymous mode refuses a folder that its user may write to. So
        `anonymous` is a second name of the account, which takes any password and serves the same
        folder."""
        with open("/etc/passwd", "a") as passwd:
            number = self.account.id
            passwd.write(f"anonymous:x:{number}:{number}::{SERVER_ROOT}:/usr/sbin/nologin\n")
        Path("/etc/pam.d/lab-ftp").write_text(
            "auth sufficient pam_succeed_if.so quiet user = anonymous\n"
            "auth required pam_unix.so nodelay\n"
            "account required pam_permit.so\nsession required pam_permit.so\n")
        empty = folder(self.home / "empty")
        daemons = []
        for version, address in self.addresses.items():
            settings = {
                "listen": "NO", "listen_ipv6": "NO", "background": "NO",
                "pam_service_name": "lab-ftp", "secure_chroot_dir": empty, "local_enable": "YES",
                "check_shell": "NO", "anonymous_enable": "NO", "write_enable": "YES",
                "local_umask": "022", "delay_failed_login": 0, "xferlog_enable": "YES",
                "log_ftp_protocol": "YES",
                "vsftpd_log_file": LAB / "log" / f"vsftpd-ipv{version}.log"
            }
            if version == 6:
                settings |= {"listen_ipv6": "YES", "listen_address6": address}
            else:
                settings |= {"listen": "YES", "listen_address": address}
            file = self.home / f"vsftpd-ipv{version}.conf"
            file.write_text("".join(f"{name}={value}\n" for name, value in settings.items()))
            probe = self._serves_file(f"ftp://{in_url(address)}/", "--user",
                                      f"{USER}:{self.account.password}")
            daemons.append(
                Daemon(f"ftp-ipv{version}",
                       network.on_server(UNPACKED / "root-vsftpd/usr/sbin/vsftpd", file), probe))
        return daemons

    def _ssh(self):
        """Passwords only, checked without PAM. SFTP is served in the account's home, the folder of
        all protocols."""
        # The user that the daemon requires for its unprivileged half.
        with open("/etc/passwd", "a") as passwd:
            passwd.write(f"sshd:x:{self.account.id + 1}:65534::/run/sshd:/usr/sbin/nologin\n")
        folder(Path("/run/sshd"))
        self.new_host_key()
        settings = [
            *(f"ListenAddress {in_url(address)}:22"
              for _, address in self.addresses.items()), f"HostKey {self._host_key()}",
            "PidFile none", "UsePAM no", "PasswordAuthentication yes", "PubkeyAuthentication no",
            "KbdInteractiveAuthentication no", "UseDNS no", "PrintMotd no",
            f"Subsystem sftp {UNPACKED / 'root-openssh-sftp-server/usr/lib/openssh/sftp-server'}"
        ]
        # Since OpenSSH 9.8 its parts are programs, which it looks for where Debian installs them.
        for option, part in {"SshdSessionPath": "session", "SshdAuthPath": "auth"}.items():
            program = UNPACKED / f"root-openssh-server/usr/lib/openssh/sshd-{part}"
            if program.exists():
                settings.append(f"{option} {program}")
        file = self.home / "sshd_config"
        file.write_text("\n".join(settings) + "\n")
        command = [UNPACKED / "root-openssh-server/usr/sbin/sshd", "-D", "-e", "-f", file]
        works = [
            self._serves_file(f"sftp://{in_url(address)}/~/", "--insecure", "--user",
                              f"{USER}:{self.account.password}")
            for _, address in self.addresses.items()
        ]
        return [Daemon("ssh", network.on_server(*command), lambda: all(probe() for probe in works))]

    def new_host_key(self):
        """Takes effect with the next start."""
        key = self._host_key()
        for file in (key, key.with_suffix(".pub")):
            file.unlink(missing_ok=True)
        subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-C", "lab", "-f", key],
                       check=True, stdin=subprocess.DEVNULL)

    def _host_key(self):
        return self.home / "ssh_host_key"

    def _serves_file(self, url, *options):
        """Does a real download from the switch. If the switch's link loses frames, or the server is
        reached within a VRF only, the download is made on the server's own host."""
        # A TFTP request sent before the server listens is lost, so it is repeated soon. A login
        # takes longer.
        fetch = ("curl", "--silent", "--max-time", "0.5" if url.startswith("tftp:") else "5",
                 *options, f"{url}.probe")
        if network.wants_relay(self.options) or self.options["vrf"]:
            fetch = network.on_server(*fetch)

        def works():
            probe = SERVER_ROOT / ".probe"
            probe.write_text("ready\n")
            probe.chmod(0o644)
            try:
                return output_of(*fetch, within=10) == "ready\n"
            finally:
                probe.unlink()

        return works


def in_url(address):
    return f"[{address}]" if ":" in address else address
