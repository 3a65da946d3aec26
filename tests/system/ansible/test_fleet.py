"""A play on sixteen switches, three of which are dead."""

import json
import os
import re
from pathlib import Path

from controller import SECRETS, Watch
from copy_table import lab_ctl
from saves import running

AGENTS = os.environ.get("LAB_AGENTS", "").split()
SWITCHES = {f"switch{number}": {"address": address} for number, address in enumerate(AGENTS, 1)}
DEAD = ("switch4", "switch9", "switch16")
ALIVE = sorted(set(SWITCHES) - set(DEAD))
NEW_LINE = "  description of-the-play"
RESTORED = ALIVE[1:4]
TASKS = ("first", "again", "planned", "changes", "restored", "restored_again")


def state(switch):
    return Path(f"/lab/{switch}/disk/state")


def task(name, **parameters):
    session = "{{ session | combine({'timeout': 1, 'retries': 0}) }}"
    return {
        "config_copy.switches.config_copy": {
            "agent": "{{ address }}", "snmp": session, **parameters
        }, "register": name
    }


def plays(folder):
    """Back up twice; see what a restore would change on some switches, and do that twice."""
    backup = {"src": "running", "dest": f"{folder}/{{host}}.cfg"}
    restore = {"src": f"{folder}/{{host}}.new", "dest": "running", "replace": True}
    running_file = "'/lab/' + inventory_hostname + '/disk/state/running.cfg'"
    changes = f"{{{{ lookup('file', {running_file}) is search('{NEW_LINE}') }}}}"
    results = ", ".join(f"'{name}': hostvars[host].{name} | default(none)" for name in TASKS)
    return [{
        "hosts": "switches", "gather_facts": False,
        "tasks": [task("first", **backup), task("again", **backup)]
    }, {
        "hosts": ":".join(RESTORED), "gather_facts": False, "tasks": [
            {**task("planned", **restore), "check_mode": True, "diff": True},
            {"set_fact": {"changes": changes}},
            task("restored", **restore),
            task("restored_again", **restore)
        ]
    }, {
        "hosts": "switch1", "gather_facts": False, "tasks": [{
            "copy": {
                "dest": f"{folder}/results.json",
                "content": "{% set all = {} %}{% for host in groups.switches %}"
                           f"{{% set _ = all.update({{host: {{{results}}}}}) %}}"
                           "{% endfor %}{{ all | to_json }}"
            }
        }]
    }]


def test_sixteen_switches_three_of_them_dead(controller):
    before = {switch: running(state(switch)) for switch in ALIVE}
    for switch in RESTORED:
        file = controller.folder / f"{SWITCHES[switch]['address']}.new"
        file.write_text(re.sub("^  description .*", NEW_LINE, before[switch].decode(), flags=re.M))
    for switch in DEAD:
        lab_ctl("stop-agent", switch.removeprefix("switch"))
    try:
        with Watch() as watch:
            done = controller.playbook(plays(controller.folder), SWITCHES, "-vvvv")
    finally:
        for switch in DEAD:
            lab_ctl("start-agent", switch.removeprefix("switch"))
    assert done.returncode == 2, done.stdout[-3000:]  # some hosts have failed
    results = json.loads((controller.folder / "results.json").read_text())
    for switch in ALIVE:
        first, again = results[switch]["first"], results[switch]["again"]
        assert first["changed"] and not again["changed"], (first, again)
        assert first["copy"]["bytes"] == len(before[switch])
    for switch in RESTORED:
        planned, changes, restored, restored_again = (results[switch][name] for name in TASKS[2:])
        assert planned["changed"] and f"\n+{NEW_LINE}\n" in planned["diff"]["prepared"], planned
        assert not changes, "the check mode has changed the switch"
        assert restored["changed"] and not restored_again["changed"], restored_again
        assert "diff" not in restored and restored_again["text"].endswith(" are the same")
        assert NEW_LINE in running(state(switch)).decode()
    for switch in DEAD:
        first = results[switch]["first"]
        assert first["failed"] and first["ending"] == "not_reachable", first
        assert first["msg"].startswith(f"no answer from {SWITCHES[switch]['address']} in ")
        assert results[switch]["again"] is None
    assert done.stdout.count("unreachable=0    failed=1 ") == len(DEAD)
    assert f"\n+{NEW_LINE}\n" in done.stdout, "the difference is not shown"
    assert '"auth_passphrase": "VALUE_SPECIFIED_IN_NO_LOG_PARAMETER"' in done.stdout
    assert not any(secret in done.stdout for secret in SECRETS)
    assert "config-copy" in watch.programs and watch.found == []
    assert controller.leaked() == []
