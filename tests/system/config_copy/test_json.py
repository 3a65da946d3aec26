"""--json: each object is as the schema in the manual page says."""

import datetime
import json
import os
import re
from pathlib import Path

import jsonschema
import pytest
from command import DONE, FAILED, QUICK, UNREACHABLE, USAGE, config_copy, rows
from copy_table import AGENT, SERVER4, Request, upload

MANUAL = Path(__file__).parents[3] / "docs/man/config-copy.1"


def schema():
    text = MANUAL.read_text()
    (found,) = re.findall(r"^\.Ss Schema\n.*?^\.Bd -literal\n(.*?)^\.Ed$", text,
                          re.DOTALL | re.MULTILINE)
    return json.loads(found)


def objects(*words, **settings):
    """What the command prints, checked. (objects, the command's end)."""
    done = config_copy("--json", *words, **settings)
    validator = jsonschema.Draft202012Validator(schema())
    found = done.objects()
    for each in found:
        validator.validate(each)
        assert not any(" " in key for key in each)
    assert done.err == "", done
    return found, done


@pytest.fixture(autouse=True)
def no_row_stays(operator):
    yield
    assert rows(operator) == []


def test_the_schema_is_one_and_strict():
    jsonschema.Draft202012Validator.check_schema(schema())
    validator = jsonschema.Draft202012Validator(schema())
    ((copy,), _) = objects("--dry-run", AGENT, "running", "startup")
    assert validator.is_valid(copy)
    for key in copy:
        assert not validator.is_valid({name: value
                                       for name, value in copy.items() if name != key}), key
        assert not validator.is_valid({**copy, key: {}}), key
    assert not validator.is_valid({**copy, "other": 1})


def test_copy():
    before = datetime.datetime.now(datetime.timezone.utc).replace(microsecond=0)
    url = f"scp://{os.environ['LAB_USER']}@{SERVER4}/{{host}}%20.cfg"
    ((copy,), done) = objects(AGENT, "running", url, stdin=os.environ["LAB_PASSWORD"])
    after = datetime.datetime.now(datetime.timezone.utc)
    assert done.status == DONE and os.environ["LAB_PASSWORD"] not in done.out
    assert {
        key: copy[key]
        for key in ("type", "agent", "ending", "status", "dry_run", "from", "to", "server", "file",
                    "user", "snmp_user", "state", "cause", "switches")
    } == {
        "type": "copy", "agent": AGENT, "ending": "done", "status": 0, "dry_run": False,
        "from": "running", "to": f"scp://{os.environ['LAB_USER']}@{SERVER4}/{AGENT}%20.cfg",
        "server": SERVER4, "file": f"{AGENT} .cfg", "user": os.environ["LAB_USER"],
        "snmp_user": "operator", "state": "successful", "cause": None, "switches": []
    }
    assert 0 <= copy["seconds"] < 10
    assert copy["text"].startswith(f"{AGENT}: running to ")
    assert 1 <= copy["index"] <= 2147483647
    assert before <= datetime.datetime.fromisoformat(copy["start_time"].replace("Z",
                                                                                "+00:00")) <= after


def test_failed_copy():
    ((copy,), done) = objects("-v2c", "-c", "lab", AGENT, f"tftp://{SERVER4}/absent.cfg", "running")
    assert (done.status, copy["status"], copy["state"], copy["cause"]) == (FAILED, FAILED, "failed",
                                                                           "badFileName")
    assert (copy["from"], copy["to"], copy["user"],
            copy["snmp_user"]) == (f"tftp://{SERVER4}/absent.cfg", "running", None, None)


def test_copy_that_never_began():
    ((copy,), done) = objects(*QUICK, "127.0.0.1:9", "running", "startup")
    assert (done.status, copy["ending"], copy["from"], copy["to"], copy["index"],
            copy["start_time"]) == (UNREACHABLE, "not_reachable", "running", "startup", None, None)


def test_dry_run():
    ((copy,), _) = objects("--dry-run", AGENT, "running", f"tftp://{SERVER4}/a")
    assert (copy["type"], copy["dry_run"], copy["ending"], copy["server"], copy["file"],
            copy["index"]) == ("copy", True, "done", SERVER4, "a", None)


def test_summary_tells_that_it_is_one(tmp_path):
    (tmp_path / "hosts").write_text(f"{AGENT}\n127.0.0.1:9\n")
    *copies, summary = objects(*QUICK, "--hosts", tmp_path / "hosts", "running", "startup")[0]
    assert [copy["type"] for copy in copies] == ["copy", "copy"]
    assert summary == {
        "type": "summary", "agents": 2, "done": 1, "failed": 0, "usage": 0, "refused": 0,
        "not_reachable": 1, "busy": 0
    }


@pytest.mark.parametrize("words, text", [
    (("--foo", AGENT, "running", "startup"), "there is no option --foo (config-copy --help)"),
    ((AGENT, "running"), "name AGENT, FROM and TO (config-copy --help)"),
    ((AGENT, "running", "tftp://127.0.0.1/a"),
     'the file server "127.0.0.1" is 127.0.0.1, which on the switch is the switch itself: '
     'write the address by which '
     "the switch reaches the server"),
])
def test_bad_usage(words, text):
    found, done = objects(*words)
    assert found == [{
        "type": "error", "agent": None, "ending": "usage", "status": USAGE, "text": text
    }]
    assert done.status == USAGE


def test_requests(operator):
    request = Request(operator).create(*upload(SERVER4, "a.cfg"))
    ((listed,), _) = objects("list", AGENT)
    assert (listed["type"], listed["agent"], listed["index"],
            listed["state"]) == ("request", AGENT, request.index, "waiting")
    ((removed,), _) = objects("abort", AGENT, request.index)
    assert (removed["type"], removed["index"], removed["removed"]) == ("removal", request.index,
                                                                       True)
    ((error,), done) = objects("abort", AGENT, request.index)
    assert (error["type"], error["agent"], error["status"], done.status) == ("error", AGENT, FAILED,
                                                                             FAILED)
