"""--dry-run: reads and reports, and sets nothing."""

import time

import pytest
from command import (
    ANSWER, BUSY, DONE, QUICK, REFUSED, SET, UNREACHABLE, USAGE, config_copy, rows, through_relay,
)
from copy_table import AGENT, SERVER4, SERVER_ROOT, Request, serve, show, upload
from saves import busy_device, save

READER = ("createUser reader SHA-256 reader-authentication AES reader-privacy-key",
          "rouser reader authPriv")
AS_READER = ("-u", "reader", "-a", "SHA-256", "-A", "reader-authentication", "-x", "AES", "-X",
             "reader-privacy-key")
RIGHTS = "; whether this user may write shows only when a copy is made\n"


@pytest.fixture(autouse=True)
def no_row_stays(operator):
    yield
    assert rows(operator) == []


@pytest.mark.parametrize("words", [("running", "startup"),
                                   (f"tftp://{SERVER4}/evil.cfg", "running"),
                                   ("running", f"scp://u@{SERVER4}/a")])
def test_no_set_is_sent(words, lines_of):
    serve("evil.cfg", lines_of("vlan 666"))
    before = show("running"), show("startup")
    done, carried = through_relay(lambda kind, number: True, "--dry-run", words=words)
    assert done.status == DONE and SET not in carried and ANSWER in carried, done
    assert (show("running"), show("startup")) == before and not (SERVER_ROOT / "a").exists()
    _, carried = through_relay(lambda kind, number: True, words=("running", "startup"))
    assert SET in carried


def test_what_would_be_done():
    done = config_copy("--dry-run", AGENT, "running", "startup")
    assert (done.status, done.out, done.err) == (
        DONE, f"{AGENT}: dry run, nothing is set: would copy running to startup{RIGHTS}", "")
    with open("/etc/hosts", "a") as hosts:
        hosts.write(f"{SERVER4} dry.example.net\n")
    name = f"{AGENT}-{time.strftime('%Y-%m-%d')} %.cfg"
    done = config_copy("--dry-run", AGENT, "startup-config",
                       "sftp://joe@dry.example.net/{host}-{date}%20%25.cfg")
    assert (done.status, done.out, done.err) == (
        DONE,
        f"{AGENT}: dry run, nothing is set: "
        "would copy startup to "
        f"sftp://joe@dry.example.net/{name.replace('%', '%25').replace(' ', '%20')} "
        f'(server {SERVER4}, file "{name}"){RIGHTS}', "")


def test_a_user_who_may_only_read(own_agents):
    (agent,) = own_agents(settings=READER)
    assert config_copy(*AS_READER, "--dry-run", agent.name, "running", "startup").status == DONE


def test_no_copy_table(own_agents):
    (agent,) = own_agents(settings=READER, with_module=False)
    done = config_copy(*AS_READER, "--dry-run", agent.name, "running", "startup")
    assert done.status == REFUSED and "has no copy table that this user may read" in done.err, done


def test_busy(operator):
    with busy_device():
        request = save(operator)
        request.activate()
        done = config_copy("--dry-run", AGENT, "startup", "running")
        assert (done.status, done.err) == (
            BUSY,
            f"config-copy: {AGENT}: another copy is in progress: try again later, "
            "or queue with --wait-turn SECONDS\n"
        )
        done = config_copy("--dry-run", "--wait-turn", 60, AGENT, "startup", "running")
        assert done.status == DONE, done
        assert (" would copy startup to running when its turn comes, as another copy is in "
                "progress; ") in done.out, done
    request.finished()
    request.destroy()


def test_a_request_that_waits(operator):
    other = Request(operator).create(*upload(SERVER4, "later.cfg"))
    done = config_copy("--dry-run", AGENT, "running", "startup")
    assert done.status == DONE, done
    other.destroy()


def test_a_password_file_is_read_and_nobody_is_asked(tmp_path):
    assert config_copy("--dry-run", AGENT, "running", f"sftp://u@{SERVER4}/a").status == DONE
    done = config_copy("--dry-run", "--password-file", tmp_path, AGENT, "running",
                       f"sftp://u@{SERVER4}/a")
    assert (done.status, done.err) == (
        USAGE, f"config-copy: the password file {tmp_path} can't be read: Is a directory\n")
    done = config_copy("--dry-run", "-v2c", "-c", "lab", AGENT, "running", f"sftp://u@{SERVER4}/a")
    assert "travels to the agent unencrypted" in done.err, done


def test_many(tmp_path):
    (tmp_path / "hosts").write_text(f"{AGENT}\n127.0.0.1:9\n")
    done = config_copy("--dry-run", *QUICK, "--hosts", tmp_path / "hosts", "running", "startup")
    assert done.status == UNREACHABLE, done
    assert done.out.endswith("\n2 agents: 1 ready, 1 not reachable\n"), done
