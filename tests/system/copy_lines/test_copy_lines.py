"""The line that the switch keeps of each copy and save and sends to the system's log: the
requester, the source and destination, and the outcome."""

import hashlib
import itertools
import os
import re
import signal
import subprocess
from datetime import datetime, timezone
from pathlib import Path

import pytest
from copy_table import (
    ACCOUNT, AGENT, BAD_FILE_NAME, BAD_LINE, FABRIC_STARTUP, FTP, GENERAL, LOCAL_STARTUP_TO_RUNNING,
    LOGS, NO_SPACE, SCP, SECRET, SERVER4, SERVER6, SERVER_ROOT, SFTP, STATE_DIRECTORY, STATE_FAILED,
    TFTP, TIME_STARTED, Manager, Request, agent_pid, children, download, lab_ctl, process_state,
    run, serve, show, upload, wait_for,
)
from saves import (
    SYSTEM_MANAGER_FAILED, SYSTEM_MANAGER_REFUSED, busy_device, damaged_running_configuration,
    full_disk, logged, save, system_manager_pid,
)

LAST_COPY = ".1.3.6.1.4.1.8072.1.3.2.4.1.2.9." + ".".join(str(octet) for octet in b"last-copy")
LOG = LOGS / "system"
PROTOCOLS = {"tftp": TFTP, "ftp": FTP, "scp": SCP, "sftp": SFTP}
OTHER = {"scp": SCP, "sftp": SFTP, "ftp": FTP}
ADDRESS_OF_OURS = AGENT  # the tests run on the switch
WORD = re.compile(r' ([a-z0-9]+)=(?:"((?:[^"\\]|\\.)*)"|(\S*))')
vlans = itertools.count(2000)


def unescaped(text):
    def character(match):
        return chr(int(match[1][1:], 16)) if len(match[1]) == 3 else match[1]

    return re.sub(r"\\(x..|.)", character, text)


def parsed_line(text):
    when, _, words = text.partition(" ")
    found = {"when": datetime.strptime(when, "%Y-%m-%dT%H:%M:%SZ").replace(tzinfo=timezone.utc)}
    position = len(when)
    while position < len(text):
        match = WORD.match(text, position)
        assert match, text[position:]
        found[match[1]] = match[3] if match[2] is None else unescaped(match[2])
        position = match.end()
    return found


def kept():
    return run("cmdshell", "-c", "show copies").splitlines()


def digest(content):
    return hashlib.sha256(content).hexdigest()


def line_of(request):
    """The line of the request's copy, once it is there. Checks that the log has the same line."""
    def newest():
        lines = [line for line in kept() if f" request={request.index} " in line]
        return lines[0] if lines else None

    line = wait_for(newest, what="the copy's line")

    def logged_messages():
        return [
            text for text in LOG.read_text().splitlines() if text.endswith(f"config-copy: {line}")
        ]

    messages = wait_for(logged_messages, what="the log's line")
    # authpriv (10) and notice (5), RFC 5424, 6.2.1
    assert len(messages) == 1 and messages[0].startswith("<85>"), messages
    assert " snmpd" in messages[0]  # the agent's own name in the log
    return parsed_line(line)


def failed(request, within=15):
    cause = request.fails(within)
    line = line_of(request)
    assert line["outcome"] == "failed"
    return cause, line


@pytest.fixture(autouse=True)
def no_password_anywhere():
    """After every test, the account's password is in none of the lines, and no report is left."""
    yield
    assert SECRET not in "\n".join(kept()) and SECRET not in LOG.read_text()
    assert list(Path("/lab/switch1/run").glob("copy-report*")) == []


@pytest.mark.parametrize("name", PROTOCOLS)
@pytest.mark.parametrize("server", [SERVER4, SERVER6], ids=["ipv4", "ipv6"])
def test_upload(operator, name, server):
    remote = "told.cfg" if name == "scp" else "told there.cfg"
    columns = upload(server, remote, protocol=PROTOCOLS[name])
    request = Request(operator).create(*columns).copied()
    line = line_of(request)
    content = next(SERVER_ROOT.glob("told*")).read_bytes()
    assert content == show("running").encode()
    user = "" if name == "tftp" else f"{ACCOUNT}@"
    host = f"[{server}]" if ":" in server else server
    file = remote.replace(" ", "%20")
    now = datetime.now(timezone.utc)
    assert abs((now - line.pop("when")).total_seconds()) < 60
    assert float(line.pop("seconds")) < 30
    assert line == {
        "request": str(request.index), "started": str(request.get(TIME_STARTED)),
        "user": "operator", "requester": ADDRESS_OF_OURS, "from": "running",
        "to": f"{name}://{user}{host}/{file}", "outcome": "successful", "bytes": str(len(content)),
        "sha256": digest(content)
    }


@pytest.mark.parametrize("name", PROTOCOLS)
def test_download(operator, name, lines_of):
    content = lines_of(f"vlan {next(vlans)}").encode()
    serve("new.cfg", content)
    columns = download(SERVER4, "new.cfg", protocol=PROTOCOLS[name])
    line = line_of(Request(operator).create(*columns).copied())
    assert line["from"].endswith("/new.cfg")
    assert (line["to"], line["outcome"]) == ("running", "successful")
    assert (line["bytes"], line["sha256"]) == (str(len(content)), digest(content))


def test_community_is_shown_by_its_security_name():
    request = Request(Manager("v2c")).create(*upload(SERVER4, "by-v2c.cfg")).copied()
    line = line_of(request)
    assert re.fullmatch(r"comm\d", line["user"]) and line["requester"] == ADDRESS_OF_OURS, line


def test_requester_is_another_host():
    """The second switch sends the request to the first."""
    settings = [f"{name}={os.environ[name]}" for name in ("SNMPCONFPATH", "SNMP_PERSISTENT_DIR")]
    manager = Manager("v3", within=("lab-ctl", "switch-exec", "2", "env", *settings))
    line = line_of(Request(manager).create(*upload(SERVER4, "asked.cfg")).copied())
    assert line["requester"] == "192.0.2.11"


@pytest.mark.parametrize("name", OTHER)
def test_login_refused(operator, name):
    for user, password in ((ACCOUNT, "wrong-one"), ("nobody-knows", SECRET)):
        columns = upload(SERVER4, "no.cfg", protocol=OTHER[name], user=user, password=password)
        cause, line = failed(Request(operator).create(*columns))
        assert (cause, line["cause"]) == (GENERAL, "general")
        assert line["reason"] == f"login refused for {user}"
        assert "sha256" not in line and "wrong-one" not in "\n".join(kept())


def test_changed_host_key(operator):
    for name in ("sftp", "scp"):
        columns = upload(SERVER4, f"{name}.cfg", protocol=OTHER[name])
        Request(operator).create(*columns).copied()
    lab_ctl("new-host-key")
    try:
        for name in ("sftp", "scp"):
            columns = upload(SERVER4, f"{name}.cfg", protocol=OTHER[name])
            cause, line = failed(Request(operator).create(*columns))
            assert (cause, line["reason"]) == (GENERAL, f"host key changed for {SERVER4}")
    finally:
        (STATE_DIRECTORY / "ssh_known_hosts").unlink()


def test_refused_by_tftp(operator):
    serve("secret.cfg", "hostname other\n", mode=0)
    cause, line = failed(Request(operator).create(*download(SERVER4, "secret.cfg")))
    assert cause == BAD_FILE_NAME, line
    assert re.match("(Access violation|File not found)", line["reason"]), line
    assert line["bytes"] == "0"


def test_refused_line(operator):
    content = b"hostname fine\n" + b"!\n" * 12 + b"vlna 7\n"
    serve("bad.cfg", content)
    cause, line = failed(Request(operator).create(*download(SERVER4, "bad.cfg")))
    assert (cause, line["cause"]) == (BAD_LINE, "configNotApplied")
    assert line["reason"] == "line 14: unknown statement 'vlna'"
    assert (line["bytes"], line["sha256"]) == (str(len(content)), digest(content))


@pytest.mark.parametrize("name", PROTOCOLS)
def test_full_server(operator, name, lines_of):
    # More than a server may keep in its buffers until it has acknowledged all of it.
    serve("much.cfg", lines_of(*(f"vlan {number}" for number in range(100, 2000))))
    Request(operator).create(*download(SERVER4, "much.cfg")).copied()
    with full_disk(SERVER_ROOT):
        columns = upload(SERVER4, "no-room.cfg", protocol=PROTOCOLS[name])
        cause, line = failed(Request(operator).create(*columns))
    assert (cause, line["cause"]) == (NO_SPACE, "noSpace")
    assert re.search("space|full|ailure", line["reason"]), line


def test_dead_server(operator):
    for kind, name in (("tftp", "tftp"), ("ssh", "sftp"), ("ssh", "scp"), ("ftp", "ftp")):
        lab_ctl("stop-server", kind)
        try:
            columns = upload(SERVER4, "dead.cfg", protocol=PROTOCOLS[name])
            _, line = failed(Request(operator).create(*columns))
            assert re.search("onnection refused|Can't connect", line["reason"]), line
        finally:
            lab_ctl("start-server", kind)


def test_killed_worker(operator, broken_link):
    request = Request(operator).create(*upload(SERVER4, "killed.cfg")).activate()
    (worker,) = wait_for(lambda: children(agent_pid()), what="the worker")
    os.kill(worker, signal.SIGKILL)
    assert request.finished() == (STATE_FAILED, GENERAL)
    assert line_of(request)["reason"] == "the copy process ended by signal 9"


def test_copy_whose_request_is_removed(operator, broken_link):
    request = Request(operator).create(*upload(SERVER4, "removed.cfg")).activate()
    (worker,) = wait_for(lambda: children(agent_pid()), what="the worker")
    request.destroy()
    line = line_of(request)
    assert (line["outcome"], line["cause"]) == ("failed", "general")
    assert line["reason"] == "the request was removed before the end"


def test_copy_whose_agent_ends(operator, broken_link):
    request = Request(operator).create(*upload(SERVER4, "outlived.cfg")).activate()
    (worker,) = wait_for(lambda: children(agent_pid()), what="the worker")
    lab_ctl("restart-agent")
    line = line_of(request)
    assert (line["outcome"], line["user"]) == ("unknown", "operator")
    assert line["reason"] == "the agent ended before the copy did"
    assert process_state(worker) in (None, "Z")


def test_startup_to_running(operator):
    line = line_of(Request(operator).create(*LOCAL_STARTUP_TO_RUNNING).copied())
    assert (line["from"], line["to"], line["outcome"]) == ("startup", "running", "successful")


def test_save(operator):
    request = save(operator).copied()
    line = line_of(request)
    assert (line["from"], line["to"]) == ("running", "startup")
    assert (line["outcome"], line["user"]) == ("successful", "operator")


def test_failed_save(operator):
    with damaged_running_configuration():
        cause, line = failed(save(operator))
    assert (cause, line["cause"]) == (SYSTEM_MANAGER_FAILED, "systemManagerFailed")
    assert line["reason"] == run("cmdshell", "-c", "show last-save").strip()


def test_refused_save(operator):
    with busy_device():
        shell = subprocess.Popen(["cmdshell", "-c", "copy running-config startup-config"],
                                 stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        wait_for(lambda: logged(f"process {shell.pid}"), what="the shell's save")
        cause, line = failed(save(operator))
    assert (cause, line["cause"]) == (SYSTEM_MANAGER_REFUSED, "systemManagerRefused")
    assert line["reason"] == "another configuration action is in progress"
    shell.wait()


def test_save_without_a_system_manager(operator):
    lab_ctl("stop-system-manager")
    request = save(operator).activate()
    line = line_of(request)
    lab_ctl("start-system-manager")
    assert (line["outcome"], line["reason"]) == ("failed", "the system manager is not running")


def test_save_that_is_given_up(operator):
    with busy_device():
        request = save(operator).activate()
        request.destroy()
        line = line_of(request)
    assert line["outcome"] == "unknown"
    assert line["reason"] == "the request was removed before the end"


def test_fabric_save_with_a_member_down(operator):
    settings = Path("/lab/switch1/platform.conf")
    before = settings.read_text()
    settings.write_text(f"{before}fabric_time_limit = 1\n")
    lab_ctl("stop-agent", 2)
    try:
        cause, line = failed(save(operator, FABRIC_STARTUP))
    finally:
        lab_ctl("start-agent", 2)
        settings.write_text(before)
    assert (cause, line["cause"]) == (SYSTEM_MANAGER_FAILED, "systemManagerFailed")
    assert line["to"] == "fabric-startup"
    assert line["reason"] == "20:00:00:00:00:00:00:02: no answer in 1 s"


def test_agent_serves_the_lines(operator):
    request = Request(operator).create(*LOCAL_STARTUP_TO_RUNNING).copied()
    line_of(request)

    def served():
        return [
            value for _, value in operator.walk(LAST_COPY)
            if f" request={request.index} " in str(value)
        ]

    assert len(wait_for(served, 3, "the line")) == 1


def test_longest_line_passes(operator):
    name = "\u00fc" * 64  # 128 octets, each written as three characters
    columns = upload(SERVER4, name.encode(), protocol=SFTP, user="u" * 40, password="wrong")
    request = Request(operator).create(*columns)
    request.fails(30)
    line = line_of(request)
    assert line["reason"] == "login refused for " + "u" * 40
    assert line["to"].endswith("%C3%BC" * 64)

    def is_served():
        return any("%C3%BC" * 64 in str(value) for _, value in operator.walk(LAST_COPY))

    wait_for(is_served, 3, "the line")


def test_unanswered_save(operator):
    os.kill(system_manager_pid(), signal.SIGSTOP)
    try:
        request = save(operator).activate()
        line = line_of(request)
    finally:
        os.kill(system_manager_pid(), signal.SIGCONT)
    assert (line["outcome"], line["reason"]) == \
        ("failed", "the system manager did not answer: Connection timed out")


def test_save_that_is_lost(operator):
    """The system manager dies in the middle of the save and so can't report the end."""
    with busy_device():
        request = save(operator).activate()
        lab_ctl("kill-system-manager")
    assert request.finished() == (STATE_FAILED, SYSTEM_MANAGER_FAILED)
    line = line_of(request)
    assert (line["outcome"], line["cause"], line["reason"]) == \
        ("failed", "systemManagerFailed", "the system manager ended before the save did")
    lab_ctl("start-system-manager")
