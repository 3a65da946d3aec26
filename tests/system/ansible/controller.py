"""Ansible as Debian's packages have it, unpacked, with the collection as it is in the sources."""

import json
import os
import subprocess
import threading
from pathlib import Path

REPOSITORY = Path(__file__).resolve().parents[3]
COLLECTION = REPOSITORY / "ansible"
PYTHON = "/usr/bin/python3"
PACKAGES = [
    REPOSITORY / f"build/lab/root-{package}/usr/lib/python3/dist-packages"
    for package in ("ansible-core", "python3-jinja2", "python3-markupsafe")
]
PROGRAMS = REPOSITORY / "build/lab/root-ansible-core/usr/bin"
MANAGER = dict(
    line.split(None, 1) for line in Path("/lab/manager/snmp.conf").read_text().splitlines()
    if line.startswith("def"))
SESSION = {
    "version": 3, "user": MANAGER["defSecurityName"], "level": MANAGER["defSecurityLevel"],
    "auth_protocol": MANAGER["defAuthType"], "auth_passphrase": MANAGER["defAuthPassphrase"],
    "priv_protocol": MANAGER["defPrivType"], "priv_passphrase": MANAGER["defPrivPassphrase"]
}
MARK = "OF_THE_CONTROLLER"  # in the environment of all that it starts
SECRETS = [SESSION["auth_passphrase"], SESSION["priv_passphrase"]]


class Controller:
    """A user of Ansible whose files are all in one folder, and whose SNMP tools know no secret."""

    def __init__(self, folder):
        self.folder = folder
        collections = folder / "collections/ansible_collections/config_copy"
        collections.mkdir(parents=True)
        (collections / "switches").symlink_to(COLLECTION)
        self.environment = {
            name: value for name, value in os.environ.items()
            if name != "SNMPCONFPATH" and not name.startswith("LAB_")
        } | {
            MARK: "yes", "HOME": str(folder), "ANSIBLE_HOME": str(folder / "ansible"),
            "ANSIBLE_COLLECTIONS_PATH": str(folder / "collections"), "ANSIBLE_NOCOLOR": "1",
            "ANSIBLE_REMOTE_TEMP": str(folder / "remote"), "ANSIBLE_FORKS": "8",
            "PYTHONPATH": ":".join(map(str, [*PACKAGES, folder / "collections"])),
            "PYTHONDONTWRITEBYTECODE": "1"
        }
        self.secrets = folder / "secrets.json"
        self.secrets.write_text(json.dumps({"session": SESSION}))
        self.secrets.chmod(0o600)

    def run(self, program, *words, within=120):
        return subprocess.run([PYTHON, PROGRAMS / program, *map(str, words)], text=True,
                              env=self.environment, cwd=self.folder, stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=within)

    def playbook(self, plays, hosts, *words, pipelining=True):
        """Runs plays on hosts, which are names with their variables; all run here. With pipelining,
        Ansible makes no files with a module and its parameters, and is faster."""
        (self.folder / "plays.json").write_text(json.dumps(plays))
        local = {
            "ansible_connection": "local", "ansible_python_interpreter": PYTHON,
            "ansible_pipelining": pipelining
        }
        (self.folder / "hosts.json").write_text(
            json.dumps({"switches": {"hosts": hosts, "vars": local}}))
        return self.run("ansible-playbook", "-i", "hosts.json", "-e", f"@{self.secrets}", *words,
                        "plays.json")

    def start(self, name="config_copy", settings=(), python=PYTHON, **parameters):
        """Starts a module as Ansible does, without Ansible."""
        arguments = parameters | {f"_ansible_{key}": value for key, value in dict(settings).items()}
        arguments["_ansible_remote_tmp"] = str(self.folder)
        process = subprocess.Popen([python, COLLECTION / f"plugins/modules/{name}.py"], text=True,
                                   env=self.environment, cwd=self.folder, stdin=subprocess.PIPE,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        process.stdin.write(json.dumps({"ANSIBLE_MODULE_ARGS": arguments}))
        process.stdin.close()
        process.stdin = None
        return process

    def module(self, name="config_copy", check=False, diff=False, python=PYTHON, **parameters):
        """Runs a module; returns what it tells Ansible. One without `snmp` gets the session."""
        parameters = {"snmp": SESSION} | parameters
        process = self.start(name, {"check_mode": check, "diff": diff}, python, **parameters)
        out, err = process.communicate(timeout=60)
        assert err == "" and len(out.split("\n")) == 3, (out, err)  # an empty one, and JSON
        result = json.loads(out)
        assert bool(result.get("failed")) == (process.returncode != 0), result
        return result

    def leaked(self, secrets=SECRETS):
        """The files with secrets, other than the one that the user wrote."""
        return [
            path for folder in (self.folder, Path("/tmp"), Path("/dev/shm"), Path("/var/log"))
            for path in folder.rglob("*")
            if path.is_file() and path.name != self.secrets.name and
            any(secret.encode() in path.read_bytes() for secret in secrets)
        ]


class Watch:
    """Looks at the arguments and variables of all processes many times a second."""

    def __init__(self, secrets=SECRETS):
        self.secrets = [secret.encode() for secret in secrets]
        self.programs, self.found = set(), []
        self.ended = threading.Event()
        self.thread = threading.Thread(target=self.watch)

    def watch(self):
        while not self.ended.wait(0.01):
            for process in Path("/proc").glob("[0-9]*"):
                try:
                    arguments = (process / "cmdline").read_bytes()
                    variables = (process / "environ").read_bytes()
                except OSError:
                    continue
                if MARK.encode() not in variables:
                    continue
                self.programs.add(arguments.partition(b"\0")[0].rpartition(b"/")[2].decode())
                if any(secret in arguments + variables for secret in self.secrets):
                    self.found.append((arguments, variables))

    def __enter__(self):
        self.thread.start()
        return self

    def __exit__(self, *_):
        self.ended.set()
        self.thread.join()
