"""The modules, started as Ansible does it, and their documentation."""

import ast
import contextlib
import json
import os
import re
import shutil
import signal
import threading
from pathlib import Path

import pytest
from command import DONE, config_copy, freeze, rows, thaw
from controller import COLLECTION, REPOSITORY, SECRETS, SESSION, Watch
from copy_table import (
    ACCOUNT, AGENT, COPY_ENTRY, CREATE_AND_WAIT, ROW_STATUS, SECRET, SERVER4, SERVER_ROOT,
    STATE_DIRECTORY, agent_pid, run, show, wait_for,
)
from saves import running, startup

OLD_PYTHON = (3, 8)


def restores():
    """How many copies to running the switch has made."""
    return run("cmdshell", "-c", "show copies").count(" to running")


@pytest.fixture
def back():
    """Gives the switch its configurations back."""
    before, saved = show("running"), startup()
    yield before
    assert config_copy("--replace", AGENT, "-", "running", stdin=before).status == DONE
    (STATE_DIRECTORY / "system.cfg").write_bytes(saved)


@pytest.fixture
def profile():
    """Writes the system's configuration file and a hosts file."""
    folder = Path("/etc/config-copy")

    def write(text, hosts):
        folder.mkdir()
        (folder / "config-copy.conf").write_text(text)
        (folder / "switches").write_text(hosts)
        (folder / "switches").chmod(0o600)

    yield write
    shutil.rmtree(folder)


def changed_text(text, word):
    return re.sub("^  description .*", f"  description {word}", text, flags=re.M)


def test_backup(controller):
    file = controller.folder / "switch.cfg"
    backup = {"agent": AGENT, "src": "running", "dest": str(file)}
    planned = controller.module(check=True, diff=True, **backup)
    assert planned["changed"] and planned["copy"]["dry_run"] and not file.exists()
    assert (planned["diff"]["before"], planned["diff"]["after"]) == ("", show("running"))
    assert controller.module(**backup)["changed"] and file.read_text() == show("running")
    for check in (True, False):
        same = controller.module(check=check, diff=True, **backup)
        assert same["changed"] is False and same["diff"]["prepared"] == "", same
    file.write_text("hostname former\n")
    planned = controller.module(check=True, diff=True, **backup)
    assert planned["changed"] and "\n-hostname former\n" in planned["diff"]["prepared"], planned
    assert file.read_text() == "hostname former\n"
    assert "diff" not in controller.module(**backup) and file.read_text() == show("running")


def test_merge_that_changes_something_and_then_nothing(controller, back):
    file = controller.folder / "part.cfg"
    file.write_text("vlan 411\n")
    restore = {"agent": AGENT, "src": str(file), "dest": "running"}
    planned = controller.module(check=True, diff=True, **restore)
    assert planned["changed"] and "\n+vlan 411\n" in planned["diff"]["prepared"]
    assert show("running") == back, "the check mode has changed the switch"
    done = controller.module(diff=True, **restore)
    assert done["changed"] and "\nvlan 411\n" in show("running")
    assert (done["diff"]["before"], done["diff"]["after"]) == (back, show("running"))
    assert controller.module(**restore)["changed"] is False


def test_restore_of_what_is_there_is_not_done_but_saved(controller, back):
    file = controller.folder / "switch.cfg"
    file.write_text(changed_text(back, "other"))
    restore = {"agent": AGENT, "src": str(file), "dest": "running", "replace": True}
    assert controller.module(**restore)["changed"]
    assert startup() != running()
    count = restores()
    assert controller.module(**restore)["changed"] is False
    planned = controller.module(check=True, diff=True, save=True, **restore)
    assert planned["changed"] and "\n+  description other\n" in planned["diff"]["prepared"], planned
    assert startup() != running(), "the check mode has saved"
    assert controller.module(confirm=True, **restore)["changed"] and startup() == running()
    assert controller.module(save=True, **restore)["changed"] is False
    assert restores() == count


def test_save(controller, back):
    save = {"agent": AGENT, "src": "running", "dest": "startup"}
    assert controller.module(**save)["changed"] is False
    config_copy("--replace", AGENT, "-", "running", stdin=changed_text(back, "unsaved"))
    planned = controller.module(check=True, diff=True, **save)
    assert planned["changed"] and "\n+  description unsaved\n" in planned["diff"]["prepared"]
    assert startup() != running()
    assert controller.module(**save)["changed"] and startup() == running()


def test_first_save(controller, back):
    (STATE_DIRECTORY / "system.cfg").unlink()
    assert controller.module(agent=AGENT, src="running", dest="startup")["changed"]
    assert controller.module(agent=AGENT, src="running", dest="startup")["changed"] is False


def test_server_with_a_password(controller):
    backup = {"agent": AGENT, "src": "running", "dest": f"sftp://{ACCOUNT}@{SERVER4}/s.cfg"}
    assert controller.module(check=True, password=SECRET, **backup)["changed"]
    assert list(SERVER_ROOT.iterdir()) == []
    with Watch([*SECRETS, SECRET]) as watch:
        done = controller.module(password=SECRET, **backup)
    assert done["changed"] and (SERVER_ROOT / "s.cfg").read_text() == show("running")
    assert "config-copy" in watch.programs and watch.found == []
    assert SECRET not in json.dumps(done) and controller.leaked([SECRET]) == []


def test_server_without_its_password(controller):
    failed = controller.module(agent=AGENT, src="running", dest=f"sftp://{ACCOUNT}@{SERVER4}/s.cfg")
    assert failed["ending"] == "usage" and "--password-file" in failed["msg"], failed


def test_profile_with_a_hosts_file(controller, profile):
    """The agent's options there hold, too, and those of the task before them."""
    profile("[nightly]\nhosts = switches\nsave = yes\njson = yes\n",
            f"{AGENT} -v 2c -c lab -t 0.3 -r 0\n")
    file = controller.folder / "switch.cfg"
    backup = {"agent": AGENT, "src": "running", "dest": str(file), "profile": "nightly"}
    for check in (True, False):
        assert controller.module(check=check, diff=True, snmp=None, **backup)["changed"]
    assert controller.module(snmp={"timeout": 2}, **backup)["changed"] is False
    found = controller.module("config_copy_info", agent=AGENT, snmp=None, profile="nightly")
    assert found["requests"] == [], found
    failed = controller.module(**{**backup, "agent": "192.0.2.99"})
    assert failed["ending"] == "usage" and "192.0.2.99" in failed["msg"], failed
    for snmp, text in ((None, "there is no profile @weekly in "), (SESSION, "there is no weekly")):
        failed = controller.module(snmp=snmp, **{**backup, "profile": "weekly"})
        assert text in failed["msg"], failed


def test_requests(controller, operator):
    assert controller.module("config_copy_info", agent=AGENT)["requests"] == []
    operator.set((f"{COPY_ENTRY}.{ROW_STATUS}.77", "i", CREATE_AND_WAIT))
    found = controller.module("config_copy_info", agent=AGENT, check=True)
    assert [request["index"] for request in found["requests"]] == [77], found
    assert found["reports"] == [] and found["changed"] is False


@pytest.mark.parametrize("parameters, text", [
    ({"src": "runing"}, 'src: must be running, startup, a URL or the absolute name of a file, not '
                        '"runing"'),
    ({"dest": "./x.cfg"}, "dest: must be running, startup, all-startup, fabric-startup, a URL or "
                          'the absolute name of a file, not "./x.cfg"'),
    ({"dest": "/nonexistent/x.cfg"}, None),
    ({"dest": "running"}, "dest: must be another one than src"),
    ({"dest": "/tmp/{{ x }}"}, None),
    ({"src": "/nonexistent", "dest": "running"}, "the file /nonexistent can't be read: No such "
                                                 "file or directory"),
    ({"src": "/etc/hostname", "dest": "startup"}, None),
    ({"replace": True}, None),
    ({"save": True, "confirm": True}, "parameters are mutually exclusive: save|confirm"),
    ({"time_limit": 0}, None),
    ({"retries": -1}, '--retries needs a number from 0 to 100, not "-1"'),
    ({"local_address": "-x"}, None),
    ({"profile": "no/profile"}, "profile: is made of letters, digits, dots, hyphens and "
                                "underscores"),
    ({"snmp": {**SESSION, "version": "4"}}, None),
    ({"snmp": {**SESSION, "auth_passphrase": "short"}}, "snmp: -A needs a passphrase of at least 8 "
                                                        "characters"),
    ({"snmp": {**SESSION, "auth_passphrase": "a\nto = /x"}}, "snmp.auth_passphrase: must not "
                                                             "contain a control character"),
    ({"password": "a\nb"}, "password: must not contain a control character"),
    ({"executable": "/nonexistent/config-copy"}, None),
    ({"executable": "/bin/true"}, "/bin/true told of 0 copies"),
    ({"executable": "/bin/false"}, "/bin/false printed no JSON and ended with status 1"),
    ({"executable": "/bin/echo"}, "/bin/echo printed no JSON and ended with status 1"),
], ids=lambda value: json.dumps(value)[:40] if isinstance(value, dict) else "")
def test_bad_parameters(controller, parameters, text):
    failed = controller.module(**{"agent": AGENT, "src": "running", "dest": "/tmp/x.cfg",
                                  **parameters})
    assert failed["failed"] and "\n" not in failed["msg"] and "Traceback" not in failed["msg"]
    assert "exception" not in failed and len(failed["msg"]) > 20, failed
    if text:
        assert text in failed["msg"], failed
    assert not Path("/tmp/x.cfg").exists()


def test_machine_without_the_command(controller):
    controller.environment["PATH"] = "/usr/bin:/bin"
    failed = controller.module(agent=AGENT, src="running", dest="/tmp/x.cfg")
    assert re.fullmatch(r"config-copy is not installed on \S+, where this task runs: install the "
                        r"package config-copy there, or run the task on the machine that has it "
                        r"\(delegate_to\)", failed["msg"]), failed


NAMES = [
    "'\"; touch /tmp/owned;$(touch /tmp/owned)", "{{lookup('pipe','touch${IFS}/tmp/owned')}}",
    "a\nto = /tmp/owned", "--on-done=/ulmo/bin/owned", "@nightly", "abort", "report", "",
    "../../tmp/owned", "\x1b[2J\u202e"
]


@pytest.mark.parametrize("name", NAMES, ids=ascii)
def test_hostile_agents(controller, name, traps_for_names):
    failed = controller.module(agent=name, src="running", dest=f"{controller.folder}/{{host}}.cfg")
    assert failed["failed"] and failed["msg"].isprintable() and "exception" not in failed, failed
    if re.search(r"^[-@]|\s|^$|[^ -~]", name):
        assert failed["msg"].startswith("agent: "), failed
    if name in ("abort", "report"):
        assert failed["ending"] == "not_reachable", failed
    assert list(controller.folder.glob("*.cfg")) == []


@pytest.mark.parametrize("name", NAMES, ids=ascii)
def test_hostile_files(controller, name, traps_for_names):
    """The file has exactly this name, or the name is refused."""
    folder = controller.folder / "files"
    folder.mkdir()
    done = controller.module(agent=AGENT, src="running", dest=f"{folder}/{name}")
    assert "exception" not in done, done
    if done.get("failed"):
        assert done["msg"].isprintable() and list(folder.iterdir()) == [], done
    else:
        assert done["changed"] and Path(f"{folder}/{name}").read_text() == show("running")


def modules():
    """The processes that have started config-copy."""
    found = []
    for process in Path("/proc").glob("[0-9]*"):
        with contextlib.suppress(OSError):
            if (process / "cmdline").read_bytes().startswith(b"/ulmo/bin/config-copy\0"):
                found.append(int(re.search(r"^PPid:\t(\d+)$", (process / "status").read_text(),
                                           re.M)[1]))
    return found


@pytest.fixture
def hanging(operator):
    """The parameters of a copy from an agent that does not answer until the end of the test."""
    freeze(agent_pid())
    session = {**SESSION, "timeout": 60}
    yield {"agent": AGENT, "src": "running", "dest": "/tmp/x.cfg", "snmp": session}
    thaw(agent_pid())
    assert rows(operator) == []


@pytest.mark.parametrize("number", [signal.SIGKILL, signal.SIGTERM])
def test_killed_module_leaves_nothing(controller, number, hanging):
    """Nor the command, which takes its request from the switch."""
    process = controller.start(**hanging)
    wait_for(lambda: modules() == [process.pid])
    assert controller.leaked() == []
    process.send_signal(number)
    process.communicate(timeout=10)
    wait_for(lambda: modules() == [])
    assert controller.leaked() == []


def test_module_that_is_killed_below_ansible_leaves_nothing(controller, hanging):
    hanging["snmp"] = "{{ session | combine({'timeout': 60}) }}"
    plays = [{
        "hosts": "switches", "gather_facts": False,
        "tasks": [{"config_copy.switches.config_copy": hanging}]
    }]
    killed = []

    def kill():
        (module,) = wait_for(modules, 60)
        os.kill(module, signal.SIGKILL)
        killed.append(module)

    killer = threading.Thread(target=kill)
    killer.start()
    done = controller.playbook(plays, {"switch": {}}, "-vvvv", pipelining=False)
    killer.join()
    wait_for(lambda: modules() == [])
    assert killed and done.returncode == 2, done.stdout
    assert not any(secret in done.stdout for secret in SECRETS)
    assert controller.leaked() == []


def test_secret_is_in_no_file(controller):
    """Its configuration file is one in memory, that only its user may read."""
    link = []

    def look():
        for path in controller.folder.rglob("config-copy.conf"):
            link.append(os.readlink(path))
        return link or process.poll() is not None

    process = controller.start(agent="192.0.2.99", src="running", dest="/tmp/x.cfg",
                               snmp=SESSION | {"timeout": 1, "retries": 0})
    wait_for(look)
    process.communicate(timeout=20)
    assert link and link[0].startswith("/proc/self/fd/"), link
    assert controller.leaked() == [] and list(controller.folder.rglob("config-copy.conf")) == []


def described(controller, kind, name):
    done = controller.run("ansible-doc", "-t", kind, "--json", f"config_copy.switches.{name}")
    assert done.returncode == 0, done.stdout
    return json.loads(done.stdout)[f"config_copy.switches.{name}"]


@pytest.mark.parametrize("name", ["config_copy", "config_copy_info"])
def test_documentation(controller, name):
    """It can be read, and has the options that the module takes."""
    text = controller.run("ansible-doc", f"config_copy.switches.{name}").stdout
    assert "EXAMPLES:" in text and "RETURN VALUES:" in text and "auth_passphrase" in text
    options = described(controller, "module", name)["doc"]["options"]
    module = controller.module(name, agent=AGENT, src="running", dest="startup", unknown="x")
    taken = re.search(r"Supported parameters include: (.*)\.$", module["msg"])[1]
    assert sorted(options) == sorted(re.sub(r" \(.*?\)", "", taken).split(", "))


def test_documentation_of_the_role(controller):
    options = described(controller, "role", "nightly_backup")["entry_points"]["main"]["options"]
    snmp = described(controller, "module", "config_copy")["doc"]["options"]["snmp"]["suboptions"]
    assert options["nightly_backup_snmp"]["options"].keys() == snmp.keys()
    letters = (COLLECTION / "roles/nightly_backup/templates/profile.j2").read_text()
    program = (COLLECTION / "plugins/module_utils/program.py").read_text()
    for option in snmp:
        (letter,) = re.findall(rf'"{option}": "(\w)"', program)
        assert f"'{option}': '{letter}'" in letters
    defaults = (COLLECTION / "roles/nightly_backup/defaults/main.yml").read_text()
    assert {*re.findall(r"^(\w+):", defaults, re.M), "nightly_backup_switches"} == options.keys()


def test_version_is_that_of_the_project():
    (version,) = re.findall(r"^version: (.*)", (COLLECTION / "galaxy.yml").read_text(), re.M)
    assert f"project(config_copy_mib VERSION {version} " in (
        REPOSITORY / "CMakeLists.txt").read_text()


def test_old_python_understands_the_modules():
    sources = list((COLLECTION / "plugins").rglob("*.py"))
    assert len(sources) == 4
    for source in sources:
        ast.parse(source.read_text(), feature_version=OLD_PYTHON)
