"""An SSH server of a test's own on the second address of the server's host, and keys to log in
with."""

import os
import subprocess
from pathlib import Path

from copy_table import STATE_DIRECTORY, run, wait_for

KEYS_ONLY = ("UsePAM no", "PasswordAuthentication no", "KbdInteractiveAuthentication no")


def ssh_server(start, address, folder, *settings, sftp="internal-sftp"):
    """Has `start` run the server, and returns when it answers. Of two lines about the same thing
    the server takes the first. The keys in `folder`/authorized may log in."""
    key, configuration = new_key(folder / "host-key"), folder / "sshd_config"
    configuration.write_text("\n".join([
        *settings, f"ListenAddress {address}", f"HostKey {key}", "PidFile none", "UseDNS no",
        f"AuthorizedKeysFile {folder}/authorized", "StrictModes no",
        f"Subsystem sftp {sftp}", ""
    ]))
    daemon = next(path for path in (os.path.realpath(f"/proc/{pid}/exe")
                                    for pid in os.listdir("/proc") if pid.isdigit())
                  if path.endswith("/sshd"))
    start(daemon, "-D", "-f", str(configuration))
    scan = ["ssh-keyscan", "-T1", address]
    wait_for(
        lambda: subprocess.run(scan, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).stdout,
        what="the server")


def new_key(file, passphrase="", kind="ed25519"):
    run("ssh-keygen", "-q", "-t", kind, "-N", passphrase, "-f", file)
    return file


def identity(name="ssh_identity", **more):
    """A key of the agent's user, in the state directory."""
    key = new_key(STATE_DIRECTORY / name, **more)
    owner = os.stat(STATE_DIRECTORY)
    os.chown(key, owner.st_uid, owner.st_gid)
    return key


def authorize(folder, key):
    """In the way that transfers.md recommends."""
    Path(folder, "authorized").write_text(
        'restrict,command="internal-sftp" ' + Path(f"{key}.pub").read_text())


def remove(key):
    for path in (key, Path(f"{key}.pub")):
        path.unlink(missing_ok=True)
