"""A look at the requests on an agent: list, errors, abort."""

from pathlib import Path

from command import DONE, FAILED, REFUSED, config_copy
from copy_table import (
    AGENT, CREATE_AND_WAIT, FABRIC_STARTUP, ROW_STATUS, SERVER4, SERVER6, STATE_FAILED, USER_NAME,
    Request, SnmpError, download, lab_ctl, upload,
)
from saves import SYSTEM_MANAGER_FAILED, busy_device, save


def test_list(operator):
    assert config_copy("list", AGENT).out == f"no copy requests on {AGENT}\n"
    Request(operator, 5).create(*upload(SERVER4, "a.cfg"), (USER_NAME, "joe"))
    Request(operator, 6).create(*download(SERVER6, "absent.cfg")).fails()
    done = config_copy("list", AGENT)
    lines = [line.split() for line in done.out.splitlines()]
    assert lines[0] == ["INDEX", "FROM", "TO", "STATE", "CAUSE", "SECONDS"]
    assert lines[1] == ["5", "running", f"tftp://joe@{SERVER4}/a.cfg", "waiting", "-", "-"]
    assert lines[2][:5] == [
        "6", f"tftp://[{SERVER6}]/absent.cfg", "running", "failed", "badFileName"
    ]
    assert float(lines[2][5]) >= 0
    assert config_copy("list", "-v1", "-c", "lab", AGENT).out == done.out
    first, second = config_copy("--json", "list", AGENT).objects()
    assert first == {
        "type": "request", "agent": AGENT, "index": 5, "from": "running",
        "to": f"tftp://joe@{SERVER4}/a.cfg", "state": "waiting", "cause": None, "seconds": None
    }
    assert (second["index"], second["cause"], second["seconds"]) == (6, "badFileName",
                                                                     float(lines[2][5]))


def test_abort(operator):
    with busy_device():
        request = save(operator)
        request.activate()
        done = config_copy("abort", AGENT, request.index)
        assert (done.status,
                done.out) == (DONE,
                              f"request {request.index} of {AGENT} removed; its copy is given up\n")
        assert not request.exists()
    request = Request(operator).create()
    assert config_copy("--json", "abort", AGENT, request.index).objects() == [{
        "type": "removal", "agent": AGENT, "index": request.index, "removed": True,
        "text": f"request {request.index} of {AGENT} removed"
    }]
    done = config_copy("abort", AGENT, request.index)
    assert (done.status, done.err) == (
        FAILED,
        f"config-copy: there is no request {request.index} of {AGENT}: "
        f"see `config-copy list {AGENT}`\n"
    )


def test_abort_of_a_transfer(operator, broken_link):
    """The copy ends, and the next one begins at once."""
    request = Request(operator).create(*download(SERVER4, "absent.cfg"))
    request.activate()
    done = config_copy("abort", AGENT, request.index)
    assert (done.status, done.out) == (
        DONE,
        f"request {request.index} of {AGENT} removed; its copy is given up\n"
    )
    assert config_copy(AGENT, "startup", "running").status == DONE


def test_abort_of_a_request_that_is_stuck(operator):
    request = Request(operator).create()
    try:
        request.set((ROW_STATUS, CREATE_AND_WAIT))
    except SnmpError:
        pass
    done = config_copy("abort", AGENT, request.index)
    assert done.status == REFUSED, done
    said = "it is stuck after a refused request, and expires within 7 minutes"
    assert said in done.err, done


def test_errors(operator):
    settings = Path("/lab/switch1/platform.conf")
    before = settings.read_text()
    settings.write_text(f"{before}fabric_time_limit = 1\n")
    lab_ctl("stop-agent", 2)
    try:
        request = save(operator, FABRIC_STARTUP)
        request.activate()
        assert request.finished() == (STATE_FAILED, SYSTEM_MANAGER_FAILED)
    finally:
        lab_ctl("start-agent", 2)
        settings.write_text(before)
    done = config_copy("errors", AGENT)
    lines = sorted(line.split(maxsplit=3) for line in done.out.splitlines()[1:])
    assert lines == [[str(request.index), AGENT, "20:00:00:00:00:00:00:01", "saved"],
                     [
                         str(request.index), "192.0.2.11", "20:00:00:00:00:00:00:02",
                         "no answer in 1 s"
                     ]]
    assert config_copy("errors", AGENT, request.index).out == done.out
    assert config_copy("errors", AGENT,
                       request.index + 1).out == f"no errors of fabric saves on {AGENT}\n"
    own, other = sorted(
        config_copy("--json", "errors", AGENT).objects(), key=lambda error: error["switch"])
    assert own == {
        "type": "switch", "agent": AGENT, "index": request.index, "address": AGENT,
        "switch": "20:00:00:00:00:00:00:01", "reported": "saved"
    }
    assert (other["index"], other["reported"]) == (request.index, "no answer in 1 s")
