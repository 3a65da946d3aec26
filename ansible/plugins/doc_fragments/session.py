# Copyright (c) 2026, the config_copy_mib authors
# BSD 3-Clause License


class ModuleDocFragment:
    DOCUMENTATION = r"""
options:
  agent:
    description:
      - The switch's agent, as for snmpcmd(1), for instance C(udp6:[2001:db8::1]:161).
    type: str
    required: true
  snmp:
    description:
      - How to talk to the agent. What is left out comes from the profile, from
        C(/etc/config-copy/config-copy.conf) and from snmp.conf(5).
      - If it is given, C(~/.config/config-copy.conf) is not read.
      - Secrets are in no file, no argument and no log on the machine that runs config-copy. Ansible
        itself sends them there with the module; set C(pipelining = true), so that it makes no file
        of it.
    type: dict
    suboptions:
      version:
        description: The version of SNMP.
        type: str
        choices: ['1', '2c', '3']
      community:
        description: The community of SNMPv1 and SNMPv2c.
        type: str
      user:
        description: The user of SNMPv3.
        type: str
      level:
        description: The security level of SNMPv3.
        type: str
        choices: [noAuthNoPriv, authNoPriv, authPriv]
      auth_protocol:
        description: The authentication protocol, for instance C(SHA-256).
        type: str
      auth_passphrase:
        description: The passphrase for authentication.
        type: str
      priv_protocol:
        description: The privacy protocol, for instance C(AES).
        type: str
      priv_passphrase:
        description: The passphrase for privacy.
        type: str
      context:
        description: The context of SNMPv3.
        type: str
      timeout:
        description: How many seconds to wait for an answer.
        type: float
      retries:
        description: How often to repeat a request without an answer.
        type: int
  profile:
    description:
      - The profile of config-copy whose settings hold. If it names a hosts file, I(agent) is in
        that file, whose options hold, too.
    type: str
  time_limit:
    description:
      - Give up after so many seconds; 600 if it is not given.
    type: int
  executable:
    description:
      - The command config-copy, as a name in C(PATH) or with its folder.
    type: str
    default: config-copy
requirements:
  - config-copy on the machine that runs the module
  - python >= 3.8
author:
  - The config_copy_mib authors (@config-copy)
"""
