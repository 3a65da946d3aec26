#!/usr/bin/python3
# Copyright (c) 2026, the config_copy_mib authors
# BSD 3-Clause License

DOCUMENTATION = r"""
---
module: config_copy_info
short_description: Read the copy requests of a switch
description:
  - Reads the requests in a switch's copy table, those of other managers included, and what the
    switches of the fabric reported to failed saves, with config-copy(1). It sets nothing.
  - A request stays in the table until its manager removes it, or until some time after its end.
    config-copy(1), and so M(config_copy.switches.config_copy), removes its own.
  - Runs where config-copy is installed, usually on the controller with C(delegate_to), not on the
    switch.
extends_documentation_fragment:
  - config_copy.switches.session
attributes:
  check_mode:
    support: full
    description: It changes nothing anyway.
  diff_mode:
    support: none
    description: It changes nothing.
seealso:
  - module: config_copy.switches.config_copy
"""

EXAMPLES = r"""
- name: See which copies run
  config_copy.switches.config_copy_info:
    agent: "{{ inventory_hostname }}"
  delegate_to: localhost
  register: copies

- name: Wait for quiet before an upgrade
  ansible.builtin.assert:
    that: copies.requests | selectattr('state', 'equalto', 'running') | length == 0
"""

RETURN = r"""
requests:
  description: The requests, as config-copy(1) describes under JSON.
  returned: success
  type: list
  elements: dict
  sample:
    - {index: 7, from: running, to: "tftp://192.0.2.20/core1.cfg", state: successful, cause: null,
       seconds: 0.02}
reports:
  description: What the switches of the fabric reported to failed saves.
  returned: success
  type: list
  elements: dict
  sample:
    - {index: 7, address: 192.0.2.3, switch: "02:00:00:00:00:03", reported: no space left}
ending:
  description: Why it failed. One of C(failed), C(usage), C(refused), C(not_reachable) and C(busy).
  returned: failure of config-copy
  type: str
  sample: not_reachable
"""

from ansible.module_utils.basic import AnsibleModule
from ansible_collections.config_copy.switches.plugins.module_utils.program import (
    COMMON_OPTIONS, Program,
)


def main():
    module = AnsibleModule(argument_spec=COMMON_OPTIONS, supports_check_mode=True)
    program = Program(module)

    def listed(command):
        return [{name: value for name, value in found.items() if name not in ("type", "agent")}
                for found in program.objects(command=command)]

    module.exit_json(changed=False, requests=listed("list"), reports=listed("errors"))


if __name__ == "__main__":
    main()
