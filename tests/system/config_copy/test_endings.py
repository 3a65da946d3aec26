"""Each exit status except 0, and its message. The command leaves no request on the switch."""

import os
import signal
from pathlib import Path

import pytest
from command import (
    BUSY, DONE, FAILED, QUICK, REFUSED, UNREACHABLE, USAGE, config_copy, ended, freeze, on_terminal,
    rows, started, thaw,
)
from copy_table import (
    AGENT, SERVER4, STATE, STATE_RUNNING, STATE_WAITING, Request, agent_pid, lab_ctl, run, serve,
    show, upload, wait_for,
)
from saves import busy_device, damaged_running_configuration, save, startup

SERVER = f"tftp://{SERVER4}"
VIEW = ("this user or community may not write copy requests: it needs a write view with "
        ".1.3.6.1.4.1.41927.9.96")
NO_TABLE = "the agent has no copy table: load config_copy_mib into it (its log tells why it is not)"


@pytest.fixture(autouse=True)
def no_row_stays(operator):
    yield
    assert rows(operator) == []


def check(done, status, text):
    """One clear line."""
    out = done.out.replace(f"{AGENT}: copying\n", "")
    assert (done.status, out, done.err) == (status, "", f"config-copy: {text}\n")


# 1: the copy failed

def test_no_such_file():
    done = config_copy(AGENT, f"{SERVER}/absent.cfg", "running")
    assert done.status == FAILED
    assert "failed after" in done.err, done
    reason = f"the file server {SERVER4} has no such file or refuses access to it: check"
    assert f"(badFileName): {reason}" in done.err, done


def test_no_configuration():
    serve("no.cfg", b"\0\1\2\n")
    done = config_copy(AGENT, f"{SERVER}/no.cfg", "running")
    assert done.status == FAILED, done
    causes = "(badConfig): the file is not a configuration", "(configNotApplied)"
    assert any(cause in done.err for cause in causes), done


def test_save_that_the_system_manager_fails():
    with damaged_running_configuration():
        done = config_copy(AGENT, "running", "startup")
    assert done.status == FAILED, done
    assert "(systemManagerFailed): the system manager could not save" in done.err, done


def test_fabric_with_a_table_of_its_switches(operator):
    settings = Path("/lab/switch1/platform.conf")
    before = settings.read_text()
    settings.write_text(f"{before}fabric_time_limit = 1\n")
    lab_ctl("stop-agent", 2)
    try:
        done = config_copy(AGENT, "running", "fabric-startup")
        as_json = config_copy("--json", AGENT, "running", "fabric-startup")
    finally:
        lab_ctl("start-agent", 2)
        settings.write_text(before)
    assert done.status == FAILED and "not every switch of the fabric has saved: " in done.err, done
    table = [line.split(maxsplit=2) for line in done.err.splitlines()[1:]]
    assert table[0] == ["ADDRESS", "SWITCH", "REPORTED"]
    assert sorted(table[1:]) == [[AGENT, "20:00:00:00:00:00:00:01", "saved"],
                                 ["192.0.2.11", "20:00:00:00:00:00:00:02", "no answer in 1 s"]]
    (copy,) = as_json.objects()
    assert {entry["switch"]: entry["reported"] for entry in copy["switches"]} == {
        "20:00:00:00:00:00:00:01": "saved", "20:00:00:00:00:00:00:02": "no answer in 1 s"
    }


def test_time_limit():
    with busy_device():
        done = config_copy("--time-limit", 1, AGENT, "running", "startup")
    check(
        done, FAILED,
        f"{AGENT}: not finished in 1 s, so the save was given up: does the system manager run? "
        "(--time-limit gives more time)"
    )


TRANSFERS = pytest.mark.parametrize(
    "words", [(f"{SERVER}/absent.cfg", "running"), ("running", f"{SERVER}/late.cfg")],
    ids=["from the server", "to the server"])


@TRANSFERS
def test_time_limit_of_a_transfer(words, broken_link):
    """The switch gives it up, and the next copy begins at once."""
    done = config_copy("--time-limit", 1, AGENT, *words)
    check(
        done, FAILED,
        f"{AGENT}: not finished in 1 s, so the copy was given up (--time-limit gives more time)")
    assert config_copy("list", AGENT).out == f"no copy requests on {AGENT}\n"
    assert config_copy(AGENT, "startup", "running").status == DONE


@TRANSFERS
def test_interruption_of_a_transfer(operator, words, broken_link):
    process = started(AGENT, *words)
    assert process.stdout.readline() == f"{AGENT}: copying\n"
    process.send_signal(signal.SIGINT)
    done = ended(process)
    assert (done.status, done.err) == (
        -signal.SIGINT,
        "\nconfig-copy: interrupted: no request stays on the switch\n")
    assert config_copy(AGENT, "startup", "running").status == DONE


def test_request_that_somebody_removes(operator):
    with busy_device():
        process = started(AGENT, "running", "startup")
        (index,) = wait_for(lambda: rows(operator))
        Request(operator, index).destroy()
        check(
            ended(process), FAILED,
            f"{AGENT}: the request is gone, so the outcome is not known: the agent was restarted, "
            "or somebody removed it; "
            "`cmdshell -c \"show copies\"` on the switch may show it")


# 2: usage


@pytest.mark.parametrize("words, text", [
    ((), "name AGENT, FROM and TO (config-copy --help)"),
    ((AGENT, "running", "running"),
     "from running to running copies nothing: FROM and TO must differ"),
    ((AGENT, "http://h/a", "running"), 'unknown scheme "http": use tftp, ftp, sftp or scp'),
    ((AGENT, "running", "tftp:///a"), 'no host in "tftp:///a": write tftp://host/path'),
    ((AGENT, "running", f"scp://{SERVER4}/a"),
     f'no user in "scp://{SERVER4}/a": write scp://user@host/path'),
    ((AGENT, f"sftp://{SERVER4}/a", "running"),
     f'no user in "sftp://{SERVER4}/a": write sftp://user@host/path'),
    ((AGENT, "running", "tftp://127.0.0.1/a"),
     'the file server "127.0.0.1" is 127.0.0.1, which on the switch is the switch itself: '
     'write the address by '
     "which the switch reaches the server"),
    ((AGENT, "running", f"sftp://u@{SERVER4}/a"),
     f"no password of u@{SERVER4} on standard input: give it at the prompt, "
     "with --password-file FILE, or on "
     "standard input"),
    (("--password-file", "/nonexistent", AGENT, "running", f"sftp://u@{SERVER4}/a"),
     "the password file /nonexistent can't be read: No such file or directory"),
    (("--password-file", "/tmp", AGENT, "running", f"sftp://u@{SERVER4}/a"),
     "the password file /tmp can't be read: Is a directory"),
    (("-v", AGENT, "running", "startup"),
     "-v needs the version of SNMP: 1, 2c or 3"),
    (("", "running", "startup"), "AGENT is empty: write the switch's name or address"),
    (("--jobs", "0", AGENT, "running", "startup"), '--jobs needs a number from 1 to 1000, not "0"'),
    (("abort", AGENT), "write config-copy abort AGENT INDEX"),
    (("errors", AGENT, "0"), 'INDEX needs a number from 1 to 2147483647, not "0"'),
])
def test_usage(words, text):
    check(config_copy(*words), USAGE, text)


@pytest.mark.parametrize("option, text", [
    ("--foo", "there is no option --foo (config-copy --help)"),
    ("--quiett", "there is no option --quiett: did you mean --quiet?"),
    ("--wait_turn=60", "there is no option --wait_turn: did you mean --wait-turn?"),
])
def test_nothing_is_done_on_an_option_that_means_nothing(option, text, lines_of):
    before = show("running")
    serve("other.cfg", lines_of("vlan 666"))
    check(config_copy(option, AGENT, f"{SERVER}/other.cfg", "running"), USAGE, text)
    assert show("running") == before
    assert config_copy("--defVersion=2c", "--defCommunity=lab", AGENT, f"{SERVER}/other.cfg",
                       "running").status == DONE
    assert "vlan 666\n" in show("running")


@pytest.mark.parametrize("level", ["noAuthNoPriv", "authNoPriv"])
def test_security_level_that_is_too_low(level):
    text = (
        f"{AGENT}: the agent grants this user nothing at the security level {level}: "
        "choose a higher one, such as -l authPriv (if that is refused too, "
        "check the user's views)")
    check(config_copy("-l", level, AGENT, "running", "startup"), REFUSED, text)
    check(config_copy("-l", level, "list", AGENT), REFUSED, text)


def test_security_level_that_the_user_has_no_keys_for(own_agents):
    (agent,) = own_agents(
        settings=["createUser half SHA-256 half-authentication", "rwuser half authNoPriv"])
    user = ("-u", "half", "-a", "SHA-256", "-A", "half-authentication")
    check(
        config_copy(*user, "-x", "AES", "-X", "half-privacy-key", agent.name, "running",
                    f"{SERVER}/a"), REFUSED,
        f"{agent.name}: the agent has no keys of this user for the security level authPriv: "
        "choose another one with -l, or add the keys on the agent"
    )
    assert config_copy(*user, "-l", "authNoPriv", agent.name, "running",
                       f"{SERVER}/a").status == DONE


def test_privacy_protocol_that_nobody_chose(tmp_path):
    """Neither an option nor snmp.conf names one, and the library takes DES."""
    done = config_copy("-u", "operator", "-l", "authPriv", "-a", "SHA-256", "-A",
                       "lab-authentication", "-X", "lab-privacy-key", *QUICK, AGENT, "running",
                       "startup", env={**os.environ, "SNMPCONFPATH": str(tmp_path)})
    check(
        done, REFUSED,
        f"{AGENT}: the agent can't decrypt the user's requests: check the passphrase (-X) and the "
        "protocol (-x, here DES)"
    )


def test_usage_of_the_librarys_options():
    check(config_copy("-l", "high", AGENT, "running", "startup"), USAGE,
          "-l needs the security level: noAuthNoPriv, authNoPriv or authPriv")


@pytest.mark.parametrize("options, text", [
    ((),
     "an authentication passphrase: give -A PASSPHRASE with -a PROTOCOL, "
     "or defAuthPassphrase in snmp.conf"
     ),
    (("-a", "SHA-256", "-A", "lab-authentication"),
     "a privacy passphrase: give -X PASSPHRASE with -x PROTOCOL, or defPrivPassphrase in snmp.conf"
     ),
    (("-a", "SHA-256", "-A", "lab-authentication", "-x", "AES"),
     "a privacy passphrase: give -X PASSPHRASE with -x PROTOCOL, or defPrivPassphrase in snmp.conf"
     ),
])
def test_missing_keys(options, text, tmp_path):
    check(
        config_copy("-u", "operator", "-l", "authPriv", *options, AGENT, "running", "startup",
                    env={**os.environ, "SNMPCONFPATH": str(tmp_path)}), USAGE,
        f"the security level authPriv needs {text}")


def test_no_user(tmp_path):
    check(
        config_copy(AGENT, "running", "startup", env={**os.environ, "SNMPCONFPATH": str(tmp_path)}),
        USAGE, "no SNMPv3 user: give -u USER, or defSecurityName in snmp.conf")


# 3: refused by the agent

def test_agent_without_the_module(own_agents):
    (agent,) = own_agents(settings=["rwcommunity writer"], with_module=False)
    check(config_copy("-v2c", "-c", "writer", agent.name, "running", "startup"), REFUSED,
          f"{agent.name}: {NO_TABLE}")
    done = config_copy("-v1", "-c", "writer", agent.name, "running", "startup")
    assert done.status == REFUSED and "has no copy table, or" in done.err, done


def test_read_only_user(own_agents):
    (agent,) = own_agents(settings=[
        "createUser reader SHA-256 reader-authentication AES reader-privacy-key",
        "rouser reader authPriv", "rocommunity reader"
    ])
    user = ("-u", "reader", "-a", "SHA-256", "-A", "reader-authentication", "-x", "AES", "-X",
            "reader-privacy-key")
    check(config_copy(*user, agent.name, "running", f"{SERVER}/a"), REFUSED,
          f"{agent.name}: {VIEW}")
    check(config_copy("-v2c", "-c", "reader", agent.name, "running", f"{SERVER}/a"), REFUSED,
          f"{agent.name}: {VIEW}")


def test_user_who_may_write_and_not_read(own_agents):
    (agent,) = own_agents(settings=[
        "createUser writer SHA-256 writer-authentication AES writer-privacy-key",
        "group writers usm writer", "view copies included .1.3.6.1.4.1.41927.9.96",
        "view system included .1.3.6.1.2.1.1",
        'access writers "" usm priv exact system copies none',
        "rocommunity reader default .1.3.6.1.4.1.41927.9.96"
    ])
    user = ("-u", "writer", "-a", "SHA-256", "-A", "writer-authentication", "-x", "AES", "-X",
            "writer-privacy-key")
    check(
        config_copy(*user, agent.name, "running", f"{SERVER}/a"), REFUSED,
        f"{agent.name}: the user may write the copy table but not read it: "
        "the user needs a read view with .1.3.6.1.4.1.41927.9.96"
    )
    assert config_copy("-v2c", "-c", "reader", "list",
                       agent.name).out == f"no copy requests on {agent.name}\n"


@pytest.mark.parametrize("words", [("list",), ("errors",), ("abort", 7)],
                         ids=lambda words: words[0])
def test_look_at_an_agent_without_the_module(own_agents, words):
    (agent,) = own_agents(settings=["rwcommunity writer"], with_module=False)
    command, *index = words
    text = (
        f"{agent.name} has no copy table that this user may read: does it load config_copy_mib, "
        "and does the user's read view include "
        ".1.3.6.1.4.1.41927.9.96?")
    check(config_copy("-v2c", "-c", "writer", command, agent.name, *index), REFUSED, text)
    done = config_copy("--json", "-v2c", "-c", "writer", command, agent.name, *index)
    (outcome,) = done.objects()
    assert done.status == REFUSED, done
    assert (outcome["agent"], outcome["ending"], outcome["status"],
            outcome["text"]) == (agent.name, "refused", REFUSED, text), done


@pytest.mark.parametrize("options, text", [
    (("-u", "nobody"), "the agent does not know this SNMPv3 user: check -u"),
    (("-a", "SHA-256", "-A", "not-the-right-one"),
     "the agent does not accept the user's authentication: check the passphrase (-A) and the "
     "protocol (-a, here SHA-256)"
     ),
    (("-a", "SHA-256", "-x", "AES", "-X", "not-the-right-one"),
     "the agent can't decrypt the user's requests: check the passphrase (-X) and the protocol (-x, "
     "here AES)"
     ),
], ids=["user", "authentication", "privacy"])
def test_wrong_credentials(options, text):
    check(config_copy(*options, *QUICK, AGENT, "running", "startup"), REFUSED, f"{AGENT}: {text}")


# 4: not reachable

def test_wrong_community():
    for version in ("-v1", "-v2c"):
        check(
            config_copy(version, "-c", "wrong", *QUICK, AGENT, "running", "startup"), UNREACHABLE,
            f"no answer from {AGENT} in 0.6 s: check the address, whether the agent runs, "
            "and whether a firewall lets SNMP pass; a wrong community (-c) is "
            "not answered either")


def test_no_agent_there():
    silent = "check the address, whether the agent runs, and whether a firewall lets SNMP pass"
    check(config_copy(*QUICK, "127.0.0.1:9", "running", "startup"), UNREACHABLE,
          f"no answer from 127.0.0.1:9 in 0.6 s: {silent}")
    check(config_copy(*QUICK, "198.51.100.9", "running", "startup"), UNREACHABLE,
          f"no answer from 198.51.100.9 in 0.6 s: {silent}")
    check(
        config_copy("tcp:127.0.0.1:9", "running", "startup"), UNREACHABLE,
        "no connection to tcp:127.0.0.1:9: check the address, and whether the agent listens on TCP")


def test_names_that_are_not_known():
    """The lab has no name server: the failure is a temporary one."""
    reason = ("can't be found: Temporary failure in name resolution; try again later, "
              "or write its address")
    check(config_copy("name.invalid", "running", "startup"), UNREACHABLE,
          f'the agent "name.invalid" {reason}')
    check(config_copy(AGENT, "running", "tftp://name.invalid/a"), UNREACHABLE,
          f'the file server "name.invalid" {reason}')


def test_agent_that_stops_answering(operator):
    """The agent keeps the request until it answers again: only then can the row be destroyed."""
    pid = agent_pid()
    with busy_device():
        process = started(*QUICK, AGENT, "running", "startup")
        try:
            (index,) = wait_for(lambda: rows(operator))
            wait_for(lambda: Request(operator, index).get(STATE) == STATE_RUNNING)
            freeze(pid)
            done = ended(process)
        finally:
            thaw(pid)
    assert done.status == UNREACHABLE
    assert done.err.startswith(
        f"config-copy: no answer from {AGENT} in 0.6 s: it answered before, so check "
        f"whether it still runs; its request {index} could not be"
    ), done
    wait_for(lambda: rows(operator) == [], what="the removal that waited for the agent")


@pytest.mark.parametrize("many", [False, True], ids=["one", "hosts"])
def test_interruption_while_the_agent_does_not_answer(operator, many, tmp_path):
    """config-copy can't know that the request is gone, and does not say so."""
    (tmp_path / "hosts").write_text(AGENT)
    pid = agent_pid()
    with busy_device():
        process = started(*QUICK, *(["--hosts", tmp_path / "hosts"] if many else [AGENT]),
                          "running", "startup")
        try:
            (index,) = wait_for(lambda: rows(operator))
            wait_for(lambda: Request(operator, index).get(STATE) == STATE_RUNNING)
            freeze(pid)
            process.send_signal(signal.SIGINT)
            done = ended(process)
        finally:
            thaw(pid)
    assert (done.status, done.err) == (
        -signal.SIGINT,
        f"\nconfig-copy: interrupted: {AGENT}: its request {index} could not be removed and "
        "expires within 7 minutes\n")
    wait_for(lambda: rows(operator) == [], what="the removal that waited for the agent")


# 5: another copy

def test_another_copy_is_in_progress(operator):
    with busy_device():
        other = save(operator)
        other.activate()
        check(
            config_copy(AGENT, "running", f"{SERVER}/a"), BUSY,
            f"{AGENT}: another copy is in progress: try again later, or queue with --wait-turn "
            "SECONDS"
        )
        check(config_copy("--quiet", "--wait-turn", 1, AGENT, "running", "startup"), BUSY,
              f"{AGENT}: another copy is in progress, and did not end in 1 s")
        assert rows(operator) == [other.index]
        process = started("--wait-turn", 30, AGENT, "running", f"{SERVER}/a")
        assert process.stdout.readline() == f"{AGENT}: waiting for another copy\n"
    done = ended(process)
    assert done.status == DONE, done
    other.destroy()


def test_a_save_beside_a_request_that_waits(operator):
    other = Request(operator).create(*upload(SERVER4, "later.cfg"))
    assert config_copy(AGENT, "running", "startup").status == DONE
    assert other.get(STATE) == STATE_WAITING
    other.copied().destroy()


# Interrupted

@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_interruption_aborts_a_save(operator, number, lines_of, tmp_path):
    (tmp_path / "new.cfg").write_text(lines_of("vlan 99"))
    run("cmdshell", "-c", f"configure {tmp_path / 'new.cfg'}")
    before = startup()
    with busy_device():
        process = started(AGENT, "running", "startup")
        assert process.stdout.readline() == f"{AGENT}: copying\n"
        process.send_signal(number)
        done = ended(process)
        assert (done.status,
                done.err) == (-number,
                              "\nconfig-copy: interrupted: no request stays on the switch\n")
        assert rows(operator) == []
    wait_for(lambda: config_copy("--wait-turn", 10, AGENT, "startup", "running").status == DONE)
    assert startup() == before


@pytest.mark.parametrize("key, number", [("\x03", signal.SIGINT), ("\x04", None)],
                         ids=["ctrl-c", "ctrl-d"])
def test_the_terminal_echoes_again_after_the_prompt(key, number):
    prompt = f"Password of u@{SERVER4}: "
    status, shown, echoes = on_terminal(AGENT, "running", f"sftp://u@{SERVER4}/a",
                                        answers=[(prompt, key)])
    assert status == (-number if number else USAGE) and echoes == [False, True], shown
    assert shown == f"{prompt}\r\n" + (
        "" if number else
        f"config-copy: no password of u@{SERVER4}: give it at the prompt, "
        "with --password-file FILE, or on "
        "standard input\r\n")


def test_reader_that_goes(operator):
    """As in `config-copy … | head -0`."""
    with busy_device():
        process = started(AGENT, "running", "startup")
        wait_for(lambda: rows(operator))
        process.stdout.close()
    assert process.wait(15) == DONE
    process.stderr.close()
