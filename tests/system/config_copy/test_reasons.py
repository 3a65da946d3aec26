"""What the command reports from the switch's line of a copy: the reason of a failure, the size."""

import hashlib
import re
import time

import pytest
from command import DONE, FAILED, config_copy
from copy_table import ACCOUNT, AGENT, SERVER4, SERVER_ROOT, run, serve
from saves import damaged_running_configuration

# A user with access to the copy table only.
SETTINGS = (
    "createUser limited SHA-256 limited-auth AES limited-priv",
    "group limited usm limited",
    "view copies included .1.3.6.1.4.1.41927.9.96",
    'access limited "" usm priv exact copies copies none',
    'extend -cacheTime 1 last-copy /ulmo/bin/cmdshell -c "show copies"',
)
CREDENTIALS = ("-u", "limited", "-a", "SHA-256", "-A", "limited-auth", "-x", "AES", "-X",
               "limited-priv", "-l", "authPriv")


@pytest.fixture
def password_file(tmp_path):
    def write(text):
        path = tmp_path / "password"
        path.touch(0o600)
        path.write_text(f"{text}\n")
        return path

    return write


def test_size_of_a_copy():
    done = config_copy(AGENT, "running", f"tftp://{SERVER4}/sized.cfg")
    size = (SERVER_ROOT / "sized.cfg").stat().st_size
    assert done.status == DONE
    assert re.search(rf" copied in \d+\.\d\d s, {size} octets\n$", done.out), done


def test_size_of_copies_one_after_the_other():
    """The agent's answer may be a second old; the command asks again."""
    for number in range(3):
        done = config_copy(AGENT, "running", f"tftp://{SERVER4}/{number}.cfg")
        assert done.status == DONE and done.out.endswith(" octets\n"), done


def test_json_has_what_the_switch_says(password_file):
    (copy,) = config_copy("--json", AGENT, "running", f"tftp://{SERVER4}/json.cfg").objects()
    content = (SERVER_ROOT / "json.cfg").read_bytes()
    assert copy["sha256"] == hashlib.sha256(content).hexdigest()
    assert (copy["bytes"], copy["reason"]) == (len(content), None)
    (copy,) = config_copy("--json", "--password-file", password_file("wrong"), AGENT, "running",
                          f"ftp://{ACCOUNT}@{SERVER4}/no.cfg").objects()
    assert (copy["sha256"], copy["reason"]) == (None, f"login refused for {ACCOUNT}")


def test_login_refused(password_file):
    done = config_copy("--password-file", password_file("wrong"), AGENT, "running",
                       f"sftp://{ACCOUNT}@{SERVER4}/no.cfg")
    assert done.status == FAILED
    assert done.err.endswith(f" s (general): the switch says: login refused for {ACCOUNT}\n"), done


def test_refused_line():
    serve("bad.cfg", "!\nbogus\n")
    done = config_copy(AGENT, f"tftp://{SERVER4}/bad.cfg", "running")
    assert done.status == FAILED
    assert done.err.endswith(" s (configNotApplied): the configuration was refused while it was "
                             "applied: line 2: unknown statement 'bogus'\n"), done


def test_no_such_file():
    done = config_copy(AGENT, f"tftp://{SERVER4}/absent.cfg", "running")
    assert done.status == FAILED and "; the switch says: File not found (" in done.err, done


def test_reason_of_a_failed_save():
    with damaged_running_configuration():
        done = config_copy(AGENT, "running", "startup")
    reason = run("cmdshell", "-c", "show last-save").strip()
    text = f"(systemManagerFailed): the system manager could not save: {reason}\n"
    assert done.status == FAILED and done.err.endswith(text), done


def test_user_who_may_not_read_the_line(own_agents, password_file):
    """The outcome is reported without the line, and as quickly."""
    (agent,) = own_agents(1, SETTINGS)
    began = time.monotonic()
    done = config_copy(*CREDENTIALS, "--password-file", password_file("wrong"), agent.name,
                       "running", f"sftp://{ACCOUNT}@{SERVER4}/no.cfg")
    assert done.status == FAILED and done.err.endswith(
        "(general): the agent does not pass on the reason: see `cmdshell -c \"show copies\"` on "
        "the switch\n"), done
    assert time.monotonic() - began < 3
