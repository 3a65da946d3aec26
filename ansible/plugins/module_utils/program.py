# Copyright (c) 2026, the config_copy_mib authors
# BSD 3-Clause License

"""Runs config-copy. Secrets reach it in memory: they are in no argument, no variable of the
environment and no file on a disk, so that nothing of them stays however the module ends."""

import ctypes
import json
import os
import re
import shlex
import shutil
import signal
import subprocess
import tempfile

from ansible.module_utils.common.text.converters import to_bytes, to_native

PR_SET_PDEATHSIG = 1  # from linux/prctl.h

# The options of config-copy for a session, by parameter.
SESSION_LETTERS = {
    "version": "v",
    "community": "c",
    "user": "u",
    "level": "l",
    "auth_protocol": "a",
    "auth_passphrase": "A",
    "priv_protocol": "x",
    "priv_passphrase": "X",
    "context": "n",
    "timeout": "t",
    "retries": "r",
}
SNMP_OPTIONS = {
    "version": {"type": "str", "choices": ["1", "2c", "3"]},
    "community": {"type": "str", "no_log": True},
    "user": {"type": "str"},
    "level": {"type": "str", "choices": ["noAuthNoPriv", "authNoPriv", "authPriv"]},
    "auth_protocol": {"type": "str"},
    "auth_passphrase": {"type": "str", "no_log": True},
    "priv_protocol": {"type": "str"},
    "priv_passphrase": {"type": "str", "no_log": True},
    "context": {"type": "str"},
    "timeout": {"type": "float"},
    "retries": {"type": "int"},
}
COMMON_OPTIONS = {
    "agent": {"type": "str", "required": True},
    "snmp": {"type": "dict", "options": SNMP_OPTIONS},
    "profile": {"type": "str"},
    "time_limit": {"type": "int"},
    "executable": {"type": "str", "default": "config-copy"},
}
COMMANDS = ("list", "errors", "abort", "diff", "report")


def one_line(text):
    """Untrusted text as one line of printable characters."""
    return "".join(c if c.isprintable() else "?" for c in to_native(text).strip())


def last_line(text):
    """The last line that is not empty, or nothing."""
    return one_line(text.strip().rpartition("\n")[2])


def has_control_character(text):
    return re.search(r"[\x00-\x1f\x7f]", text) is not None


class Program:
    """config-copy with the agent, the session and the profile of the module's parameters."""

    def __init__(self, module):
        self.module = module
        parameters = module.params
        name = parameters["executable"]
        self.path = shutil.which(name)
        if self.path is None:
            module.fail_json(
                msg=f"{one_line(name)} is not installed on {one_line(os.uname().nodename)}, where "
                    "this task runs: install the package config-copy there, or run the task on "
                    "the machine that has it (delegate_to)")
        self.agent = parameters["agent"]
        # A word of config-copy's own, at the place of the agent, would mean something else.
        if re.search(r"^[-@]|\s|^$", self.agent) or has_control_character(self.agent):
            self.refuse("agent", "must be a name or an address as in snmpcmd(1), without blanks")
        if self.agent in COMMANDS:
            self.agent = "udp:" + self.agent
        self.profile = parameters["profile"]
        if self.profile is not None and not re.fullmatch(r"[A-Za-z0-9_][A-Za-z0-9_.-]*",
                                                         self.profile):
            self.refuse("profile", "is made of letters, digits, dots, hyphens and underscores")
        self.environment, self.descriptors = {**os.environ, "LC_ALL": "C.UTF-8"}, ()
        self.settings = self._settings(parameters["snmp"] or {})
        if self.settings:
            # config-copy's configuration file is a link to a file that exists in memory only.
            folder = tempfile.mkdtemp(dir=module.tmpdir)  # Ansible removes it
            self.environment["XDG_CONFIG_HOME"] = folder
            if self.profile is not None:
                self._check_profile()
            memory = os.memfd_create("config-copy")
            os.fchmod(memory, 0o600)
            os.write(memory, to_bytes(self.settings))
            os.symlink(f"/proc/self/fd/{memory}", os.path.join(folder, "config-copy.conf"))
            self.descriptors = (memory,)

    def refuse(self, parameter, reason):
        self.module.fail_json(msg=f"{parameter}: {reason}")

    def _check_profile(self):
        """The settings for the session would make a profile that does not exist."""
        known = subprocess.run([self.path, "--completion", "profiles"], env=self.environment,
                               stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                               stderr=subprocess.DEVNULL).stdout.decode().splitlines()
        if self.profile not in known:
            self.refuse("profile", f"there is no {self.profile} in /etc/config-copy/"
                        "config-copy.conf, or this user may not read it")

    def _settings(self, snmp):
        """The text of a configuration file with the session's options; empty without options."""
        words = []
        for name, letter in SESSION_LETTERS.items():
            value = snmp.get(name)
            if value is None:
                continue
            value = to_native(value)
            if has_control_character(value):
                self.refuse(f"snmp.{name}", "must not contain a control character")
            words += [f"-{letter}", shlex.quote(value)]
        return f"[{self.profile or 'defaults'}]\nsnmp = {' '.join(words)}\n" if words else ""

    def run(self, *words, command=None, options=(), secret=None):
        """Runs it to its end; returns its exit status, standard output and standard error. `secret`
        is its standard input."""
        line = [self.path, *options]
        if self.module.params["time_limit"] is not None:
            line.append(f"--time-limit={self.module.params['time_limit']}")
        line.append("--")
        line += [f"@{self.profile}"] if self.profile else []
        line += [command] if command else []
        line += [self.agent, *words]
        library = ctypes.CDLL(None)
        # If the module is killed, it ends, too, and removes its request from the switch.
        process = subprocess.Popen(
            line, stdin=subprocess.DEVNULL if secret is None else subprocess.PIPE,
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=self.environment,
            pass_fds=self.descriptors,
            preexec_fn=lambda: library.prctl(PR_SET_PDEATHSIG, signal.SIGTERM))
        out, err = process.communicate(None if secret is None else to_bytes(secret + "\n"))
        return process.returncode, out, err.decode("utf-8", "replace")

    def objects(self, *words, options=(), **settings):
        """Runs it with JSON; returns its objects. Anything else that it prints, and an error, fails
        the module."""
        status, out, err = self.run(*words, options=["--json", *options], **settings)
        try:
            objects = [json.loads(line) for line in out.splitlines()]
            kinds = [found["type"] for found in objects]
        except (ValueError, KeyError, TypeError):
            status, kinds = status or 1, []
        if "error" in kinds:
            self.fail(objects[kinds.index("error")])
        if not kinds and status != 0:
            self.module.fail_json(
                msg=last_line(err) or
                f"{self.path} printed no JSON and ended with status {status}")
        return objects

    def object(self, *words, **settings):
        """The same for runs that have one object."""
        objects = self.objects(*words, **settings)
        if len(objects) != 1:
            self.module.fail_json(
                msg=f"{self.path} told of {len(objects)} copies instead of one")
        return objects[0]

    def fail(self, found, **results):
        """Fails the module with the sentence of a copy, a comparison or an error."""
        text = found["text"]
        if self.settings:  # the file in memory has no name that would tell anything
            text = re.sub(r"in \S*/config-copy\.conf, line 2: ", "snmp: ", text)
        self.module.fail_json(msg=one_line(text), ending=found["ending"], **results)
