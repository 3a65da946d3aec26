#!/usr/bin/python3
# Copyright (c) 2026, the config_copy_mib authors
# BSD 3-Clause License

DOCUMENTATION = r"""
---
module: config_copy
short_description: Copy the configuration of a switch over SNMP
description:
  - Makes a switch copy its configuration to a file or back, or save it, with config-copy(1).
  - Runs where config-copy is installed, usually on the controller with C(delegate_to), not on the
    switch.
  - A switch whose configuration is already what it would become is left alone. Two configurations
    are compared if both are I(running), I(startup) or a file of the machine that runs the module.
    A copy to or from a server, to C(all-startup) or to C(fabric-startup) is always made and always
    reported as changed.
options:
  src:
    description:
      - What to copy. C(running), C(startup), a URL as in config-copy(1), or the absolute name of a
        file on the machine that runs the module.
    type: str
    required: true
  dest:
    description:
      - Where to copy it. As I(src), and C(all-startup) or C(fabric-startup).
      - In a URL and in the name of a file C({host}), C({name}), C({date}), C({time}) and
        C({datetime}) are filled in as in config-copy(1). C({host}) is I(agent) made safe for the
        name of a file.
    type: str
    required: true
  replace:
    description:
      - The running configuration becomes exactly I(src), a file, instead of being merged with it.
    type: bool
    default: false
  save:
    description:
      - Afterwards the startup configuration is the running one, also where I(src) did not differ.
        For copies to C(running).
    type: bool
    default: false
  confirm:
    description:
      - As I(save), but after a copy only if the agent still answers. If it does not, a switch with
        the setting C(confirm_limit) goes back by itself.
    type: bool
    default: false
  password:
    description:
      - The password of the account on the file server.
    type: str
  password_file:
    description:
      - The file whose first line is that password.
    type: str
  local_address:
    description:
      - The address at which the switch reaches the machine that runs the module, if it is not the
        one that leads to the agent.
    type: str
  wait_turn:
    description:
      - How many seconds to wait for another copy on the switch, and for other tasks on the machine
        that runs the module. Only one config-copy at a time copies files of that machine.
    type: int
    default: 120
  retries:
    description:
      - How often to try again if the cause may pass.
    type: int
  retry_pause:
    description:
      - How many seconds to wait before that; 10 if it is not given.
    type: int
extends_documentation_fragment:
  - config_copy.switches.session
attributes:
  check_mode:
    support: full
    description: Nothing is set at the switch that changes it. Its running configuration is copied
      to the machine that runs the module, to be compared.
  diff_mode:
    support: full
    description: For configurations that are compared.
notes:
  - A file that is merged may bring nothing new and still differ from the running configuration. The
    check mode then predicts a change; the copy itself reports whether it was one.
seealso:
  - module: config_copy.switches.config_copy_info
"""

EXAMPLES = r"""
- name: Back up each switch
  config_copy.switches.config_copy:
    agent: "{{ inventory_hostname }}"
    src: running
    dest: /var/backups/switches/{host}.cfg
    snmp: &operator
      version: 3
      level: authPriv
      user: operator
      auth_protocol: SHA-256
      auth_passphrase: "{{ vault_auth_passphrase }}"
      priv_protocol: AES
      priv_passphrase: "{{ vault_priv_passphrase }}"
  delegate_to: localhost

- name: Make each switch exactly what is in the file, and keep it if the switch still answers
  config_copy.switches.config_copy:
    agent: "{{ inventory_hostname }}"
    src: /srv/wanted/{host}.cfg
    dest: running
    replace: true
    confirm: true
    snmp: *operator
  delegate_to: localhost

- name: Save what is running
  config_copy.switches.config_copy:
    agent: "{{ inventory_hostname }}"
    src: running
    dest: startup
  delegate_to: localhost

- name: Copy to a file server
  config_copy.switches.config_copy:
    agent: "{{ inventory_hostname }}"
    src: running
    dest: sftp://backup@files.example.net/{host}-{date}.cfg
    password: "{{ vault_backup_password }}"
  delegate_to: localhost
"""

RETURN = r"""
copy:
  description:
    - How the copy ended, as config-copy(1) describes under JSON, but without the difference. In
      check mode it is that of the dry run.
  returned: if a copy was made or tried, or in check mode
  type: dict
  sample: {ending: done, bytes: 1234, seconds: 0.02, unchanged: false}
text:
  description: One sentence about it.
  returned: success
  type: str
  sample: "core1: running to /var/backups/switches/core1.cfg copied in 0.01 s, 1234 octets"
ending:
  description: Why it failed. One of C(failed), C(usage), C(refused), C(not_reachable) and C(busy).
  returned: failure of config-copy
  type: str
  sample: not_reachable
"""

import os

from ansible.module_utils.basic import AnsibleModule
from ansible_collections.config_copy.switches.plugins.module_utils.program import (
    COMMON_OPTIONS, Program, has_control_character, last_line, one_line,
)

OF_THE_SWITCH = ("running", "startup")
SEVERAL = ("all-startup", "fabric-startup")


class Copy(Program):
    """One copy, from the module's parameters to its results."""

    def __init__(self, module):
        super().__init__(module)
        self.results = {"changed": True}
        self.src = self._place("src", OF_THE_SWITCH)
        self.dest = self._place("dest", OF_THE_SWITCH + SEVERAL)
        if self.src == self.dest:
            self.refuse("dest", "must be another one than src")
        self.can_compare = all(place in OF_THE_SWITCH or place.startswith("/")
                               for place in (self.src, self.dest))
        parameters = module.params
        if has_control_character(parameters["password"] or ""):
            self.refuse("password", "must not contain a control character")
        # The first ones are for all copies that are made on the way.
        self.common = [f"--wait-turn={parameters['wait_turn']}"]
        for name in ("retries", "retry_pause", "local_address"):
            if parameters[name] is not None:
                self.common.append(f"--{name.replace('_', '-')}={parameters[name]}")
        self.options = [f"--{name}" for name in ("replace", "save", "confirm") if parameters[name]]
        if parameters["password"] is not None:
            self.options.append("--password-file=-")
        elif parameters["password_file"] is not None:
            self.options.append(f"--password-file={parameters['password_file']}")

    def _place(self, parameter, words):
        place = self.module.params[parameter]
        if place not in words and not place.startswith("/") and "://" not in place:
            self.refuse(parameter, f"must be {', '.join(words)}, a URL or the absolute name of a "
                        f'file, not "{one_line(place)}"')
        return place

    def copy(self, *options):
        """Copies; fails the module if that fails. Returns the object without the difference."""
        made = self.object(self.src, self.dest, options=[*self.common, *self.options, *options],
                           secret=self.module.params["password"])
        del made["diff"]
        if made["status"] != 0:
            self.fail(made, copy=made)
        return made

    def difference(self, old, new):
        return self.object(old, new, command="diff", options=self.common)

    def text_of(self, configuration):
        status, out, err = self.run(configuration, "-",
                                    options=["--quiet", "--no-json", *self.common])
        if status != 0:
            self.module.fail_json(msg=last_line(err) or f"{self.path} ended with status {status}")
        return out.decode("utf-8", "replace")

    def show(self, **difference):
        if self.module._diff:
            self.results["diff"] = difference

    def take(self, made, changed=True):
        self.results.update(changed=changed, text=made["text"], copy=made)

    def do(self):
        if self.module.check_mode:
            self.take(self.copy("--dry-run"))
        if self.dest == "running" and self.can_compare:
            self.restore()
        elif (self.src, self.dest) == ("running", "startup"):
            self.save()
        elif self.can_compare:
            self.back_up()
        elif not self.module.check_mode:
            self.take(self.copy())
        return self.results

    def back_up(self):
        if self.module.check_mode or self.module._diff:
            file = self.copy("--dry-run")["to"]  # with its templates filled in
            folder = os.path.dirname(file)
            if not os.path.isdir(folder):
                self.refuse("dest", f"there is no folder {one_line(folder)}")
            if os.path.exists(file) and os.path.getsize(file):
                found = self.difference(file, self.src)
                if found["different"] is None:
                    self.fail(found)
                self.results.update(changed=found["different"], text=found["text"])
                self.show(prepared=found["diff"])
            elif self.module._diff:
                self.show(before_header=file, before="", after_header=self.src,
                          after=self.text_of(self.src))
        if not self.module.check_mode:
            made = self.copy()
            self.take(made, changed=not made["unchanged"])

    def restore(self):
        found = self.difference("running", self.src)
        if found["different"] is None:
            self.fail(found)
        self.show(prepared=found["diff"])
        if not found["different"]:
            self.results.update(changed=False, text=found["text"])
            if self.module.params["save"] or self.module.params["confirm"]:
                self.save()
        elif not self.module.check_mode and self.module.params["replace"]:
            self.take(self.copy())
        elif not self.module.check_mode:
            # What a merge brings shows only afterwards.
            before = self.text_of("running")
            made = self.copy()
            after = self.text_of("running")
            self.take(made, changed=before != after)
            self.show(before_header="running", before=before, after_header="running", after=after)

    def save(self):
        """Makes the startup configuration the running one, unless it is."""
        found = self.difference("startup", "running")
        # A switch may have no startup configuration yet. Anything else shows in the copy, too.
        self.results.update(changed=found["different"] is not False, text=found["text"])
        self.show(prepared=found["diff"] or "")
        if self.results["changed"] and not self.module.check_mode:
            self.src, self.dest, self.options = "running", "startup", []
            self.take(self.copy())


def main():
    module = AnsibleModule(
        argument_spec={
            **COMMON_OPTIONS,
            "src": {"type": "str", "required": True},
            "dest": {"type": "str", "required": True},
            "replace": {"type": "bool", "default": False},
            "save": {"type": "bool", "default": False},
            "confirm": {"type": "bool", "default": False},
            "password": {"type": "str", "no_log": True},
            "password_file": {"type": "str", "no_log": False},
            "local_address": {"type": "str"},
            "wait_turn": {"type": "int", "default": 120},
            "retries": {"type": "int"},
            "retry_pause": {"type": "int"},
        }, mutually_exclusive=[("password", "password_file"), ("save", "confirm")],
        supports_check_mode=True)
    module.exit_json(**Copy(module).do())


if __name__ == "__main__":
    main()
