"""Copies that succeed, and the command's output about them."""

import itertools
import os
import re
import subprocess
import time

import pytest
from command import DONE, FAILED, QUICK, UNREACHABLE, config_copy, ended, on_terminal, rows, started
from copy_table import ACCOUNT, AGENT, SERVER4, SERVER6, SERVER_ROOT, run, serve, show
from saves import busy_device, running, startup

SERVERS = pytest.mark.parametrize("server", [SERVER4, f"[{SERVER6}]"], ids=["ipv4", "ipv6"])
vlans = itertools.count(200)
VERSIONS = pytest.mark.parametrize("options", [(), ("-v2c", "-c", "lab"), ("-v1", "-c", "lab")],
                                   ids=["v3", "v2c", "v1"])


def account(protocol="sftp", server=SERVER4):
    return f"{protocol}://{os.environ['LAB_USER']}@{server}"


@pytest.fixture(autouse=True)
def no_row_stays(operator):
    yield
    assert rows(operator) == []


@VERSIONS
@SERVERS
def test_running_to_a_file(options, server):
    done = config_copy(*options, AGENT, "running", f"tftp://{server}/up.cfg")
    assert done.status == DONE, done
    assert (SERVER_ROOT / "up.cfg").read_text() == show("running")
    assert re.fullmatch(
        rf"({AGENT}: copying\n)?{AGENT}: running to tftp://{re.escape(server)}/up.cfg copied "
        r"in \d+\.\d\d s, \d+ octets\n",
        done.out), done
    assert done.err == ""


def test_startup_to_a_file():
    assert config_copy(AGENT, "startup", f"tftp://{SERVER4}/startup.cfg").status == DONE
    assert (SERVER_ROOT / "startup.cfg").read_text() == show("startup")


def test_a_file_to_running(lines_of):
    serve("new.cfg", lines_of("vlan 77"))
    assert config_copy(AGENT, f"tftp://{SERVER4}/new.cfg", "running").status == DONE
    assert "vlan 77\n" in show("running")


@VERSIONS
@pytest.mark.parametrize("to", ["startup", "fabric-startup", "all-startup"])
def test_saves(options, to, lines_of, tmp_path):
    (tmp_path / "new.cfg").write_text(lines_of(f"vlan {next(vlans)}"))
    run("cmdshell", "-c", f"configure {tmp_path / 'new.cfg'}")
    assert startup() != running()
    done = config_copy(*options, AGENT, "running", to)
    assert done.status == DONE, done
    assert startup() == running()


@SERVERS
@pytest.mark.parametrize("protocol", ["ftp", "sftp", "scp"])
def test_there_and_back_with_a_password(protocol, server, lines_of):
    serve("new.cfg", lines_of(f"vlan {next(vlans)}"))
    for words in ((f"{account(protocol, server)}/new.cfg", "running"),
                  ("running", f"{account(protocol, server)}/back.cfg")):
        done = config_copy(AGENT, *words, stdin=os.environ["LAB_PASSWORD"] + "\n")
        assert done.status == DONE, done
        assert done.out.endswith(" octets\n"), done
        assert f"{words[0]} to {words[1]} copied in" in done.out, done
    assert (SERVER_ROOT / "new.cfg").read_text() in show("running")
    assert (SERVER_ROOT / "back.cfg").read_text() == show("running")


def test_startup_to_running():
    assert config_copy(AGENT, "startup", "running").status == DONE


def test_the_agent_over_ipv6():
    assert config_copy("udp6:[2001:db8::10]", "running", "startup").status == DONE


def test_names_are_resolved():
    with open("/etc/hosts", "a") as hosts:
        hosts.write(f"{SERVER4} files.example.net\n{AGENT} switch1.example.net\n")
    assert config_copy("switch1.example.net", "running",
                       "tftp://files.example.net/named.cfg").status == DONE
    assert (SERVER_ROOT / "named.cfg").exists()


def test_templates_and_percent_encoding():
    assert config_copy(AGENT, "running",
                       f"tftp://{SERVER4}/%7Bx%7D-{{host}}-{{date}}.cfg").status == DONE
    assert (SERVER_ROOT / f"{{x}}-{AGENT}-{time.strftime('%Y-%m-%d')}.cfg").exists()


def test_the_librarys_options_reach_the_requests():
    """The lab's agent does not serve this context."""
    done = config_copy("-n", "elsewhere", *QUICK, AGENT, "running", "startup")
    assert done.status == UNREACHABLE, done
    assert "does not answer this user's requests: check the context (-n)" in done.err, done


# Passwords

def test_password_on_standard_input():
    done = config_copy(AGENT, "running", f"{account()}/in.cfg",
                       stdin=os.environ["LAB_PASSWORD"] + "\n")
    assert done.status == DONE, done
    assert (SERVER_ROOT / "in.cfg").exists() and done.err == ""


def test_password_from_a_file(tmp_path):
    file = tmp_path / "password"
    file.write_text(os.environ["LAB_PASSWORD"] + "\n")
    file.chmod(0o600)
    done = config_copy("--password-file", file, AGENT, "running", f"{account()}/file.cfg")
    assert (done.status, done.err) == (DONE, ""), done
    file.chmod(0o644)
    done = config_copy("--password-file", file, AGENT, "running", f"{account('scp')}/file.cfg")
    assert (done.status, done.err) == (
        DONE,
        f"config-copy: warning: others may read the password file {file}: chmod 600 it\n"), done
    done = config_copy("--password-file", "-", AGENT, "running", f"{account('ftp')}/file.cfg",
                       stdin=os.environ["LAB_PASSWORD"])
    assert (done.status, done.err) == (DONE, ""), done


def test_password_at_the_prompt():
    prompt = f"Password of {os.environ['LAB_USER']}@{SERVER4}: "
    status, shown, echoes = on_terminal(AGENT, "running", f"{account()}/prompt.cfg",
                                        answers=[(prompt, os.environ["LAB_PASSWORD"] + "\n")])
    assert status == DONE, shown
    assert shown.startswith(prompt)
    assert os.environ["LAB_PASSWORD"] not in shown
    assert echoes == [False, True]
    assert (SERVER_ROOT / "prompt.cfg").exists()


def test_wrong_password():
    done = config_copy(AGENT, "running", f"{account()}/wrong.cfg", stdin="wrong\n")
    assert done.status == FAILED and f"login refused for {ACCOUNT}" in done.err, done


def test_warning_of_a_password_in_clear():
    for options in (("-v2c", "-c", "lab"), ("-v1", "-c", "lab")):
        done = config_copy(*options, AGENT, "running", f"{account()}/clear.cfg",
                           stdin=os.environ["LAB_PASSWORD"])
        assert done.status == DONE, done
        assert done.err == ("config-copy: warning: the password travels to the agent unencrypted: "
                            "use SNMPv3 with -l authPriv\n")
    done = config_copy("-l", "authNoPriv", *QUICK, AGENT, "running", f"{account()}/clear.cfg",
                       stdin=os.environ["LAB_PASSWORD"])
    assert "travels to the agent unencrypted" in done.err, done


# What is shown

@pytest.mark.parametrize("quiet", ["-q", "--quiet"])
def test_quiet(quiet):
    done = config_copy(quiet, AGENT, "running", f"tftp://{SERVER4}/quiet.cfg")
    assert (done.status, done.out, done.err) == (DONE, "", ""), done
    done = config_copy(quiet, AGENT, f"tftp://{SERVER4}/absent.cfg", "running")
    assert done.status == FAILED and done.out == "" and done.err.startswith("config-copy: "), done


def test_synonyms():
    done = config_copy(AGENT, "startup-config", "running-config")
    assert done.status == DONE and f"{AGENT}: startup to running copied in " in done.out, done


def test_each_message_is_shown_on_request():
    done = config_copy("--verbose", AGENT, "running", f"{account()}/verbose.cfg",
                       stdin=os.environ["LAB_PASSWORD"] + "\n")
    assert done.status == DONE, done
    lines = done.err.splitlines()
    assert all(line.startswith(f"config-copy: {AGENT}: ") for line in lines), done
    made, activated, destroyed = [line for line in lines if ": SET " in line]
    index = re.search(r": SET ccCopyEntryRowStatus\.(\d+) = 5, ", made)[1]
    for binding in (
            f"ccCopySourceFileType.{index} = 4", f'ccCopyFileName.{index} = "verbose.cfg"',
            f"ccCopyUserPassword.{index} = (not shown)",
            f"ccCopyServerAddressRev1.{index} = 0x{bytes(map(int, SERVER4.split('.'))).hex()}"):
        assert binding in made, made
    assert activated.endswith(f": SET ccCopyEntryRowStatus.{index} = 1")
    assert destroyed.endswith(f": SET ccCopyEntryRowStatus.{index} = 6")
    ended = f"config-copy: {AGENT}:   answer: ccCopyState.{index} = 3, ccCopyFailCause.{index} = "
    assert any(line.startswith(ended) for line in lines), done
    assert os.environ["LAB_PASSWORD"] not in done.err
    done = config_copy("--verbose", *QUICK, "127.0.0.1:9", "running", "startup")
    assert done.status == UNREACHABLE, done
    said = "config-copy: 127.0.0.1:9: GET no object\nconfig-copy: 127.0.0.1:9:   no"
    assert said in done.err, done


@pytest.mark.parametrize("words", [("--help",), ("list", AGENT),
                                   ("--json", AGENT, "running", "startup")],
                         ids=["help", "list", "json"])
def test_output_that_cannot_be_written(words):
    with open("/dev/full", "w") as full:
        done = subprocess.run(["config-copy", *words], stdin=subprocess.DEVNULL, stdout=full,
                              stderr=subprocess.PIPE, text=True, timeout=60)
    assert (done.returncode, done.stderr) == (
        FAILED, "config-copy: standard output can't be written: No space left on device\n")


def test_lines_without_a_terminal():
    with busy_device():
        process = started(AGENT, "running", "startup")
        assert process.stdout.readline() == f"{AGENT}: copying\n"
    done = ended(process)
    assert done.status == DONE, done
    assert re.fullmatch(rf"{AGENT}: running to startup copied in \d+\.\d\d s\n", done.out), done


def test_live_line_on_a_terminal():
    with busy_device():
        status, shown, _ = on_terminal("--time-limit", "2", AGENT, "running", "startup")
    assert status == FAILED
    assert f"\r{AGENT}: copying, 0 s\033[K" in shown, shown
    assert f"\r{AGENT}: copying, 1 s\033[K" in shown, shown
    assert "\r\033[Kconfig-copy: " in shown


def test_help_and_version():
    done = config_copy("--help")
    assert done.status == DONE
    assert done.out.startswith("usage: config-copy ")
    assert "5 another copy is in progress" in done.out
    assert max(map(len, done.out.splitlines())) <= 80
    assert re.fullmatch(r"config-copy \d+\.\d+\.\d+\n", config_copy("--version").out)
    assert config_copy("-V").status == DONE
    assert config_copy("-h").out == done.out
    assert (done := config_copy("-H")).status == DONE and "defSecurityName" in done.out + done.err
