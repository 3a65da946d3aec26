"""Refusals with their SNMP errors, and values that no manager should send: the table stays as it
was, the agent as it runs."""

import os

import pytest
from copy_numbers import ROOT
from copy_table import (
    ACTIVE, ADDRESS, ADDRESS_TYPE, BAD_FILE_NAME, CREATE_AND_GO, CREATE_AND_WAIT, DESTINATION,
    FAIL_CAUSE, FILE_NAME, FTP, GENERAL, IPV4, IPV6, LEGACY_ADDRESS, NETWORK, NOTIFY, PASSWORD,
    PROTOCOL, ROW_STATUS, RUNNING, SERVER4, SFTP, SOURCE, STARTUP, STATE, STATE_SUCCESSFUL,
    STATE_WAITING, TFTP, TIME_COMPLETED, TIME_STARTED, TRUE, USER_NAME, Request, SnmpError,
    agent_pid, children, download, octets, show, upload, wait_for,
)

WORDS = {USER_NAME: "user", PASSWORD: "pass", FILE_NAME: "name"}


def refused(manager, *triples):
    with pytest.raises(SnmpError) as refusal:
        manager.set(*triples)
    return refusal.value.status


@pytest.fixture
def row(manager):
    return Request(manager).create(*upload(SERVER4, "keep.cfg"), (USER_NAME, "operator"))


def integer(request, column, value):
    return request.oid(column), "i", value


def text(request, column, value):
    return request.oid(column), "s", value


REFUSALS = [
    *((column, "s", "4", "wrongType")
      for column in (PROTOCOL, SOURCE, DESTINATION, NOTIFY, ROW_STATUS, ADDRESS_TYPE)),
    *((column, "i", 4, "wrongType")
      for column in (FILE_NAME, USER_NAME, PASSWORD, ADDRESS, LEGACY_ADDRESS)),
    *((column, "u", 1, "wrongType") for column in (PROTOCOL, ROW_STATUS)),
    (LEGACY_ADDRESS, "s", "abcd", "wrongType"), (FILE_NAME, "s", "n" * 129, "wrongLength"),
    (USER_NAME, "s", "u" * 42, "wrongLength"), (PASSWORD, "s", "p" * 42, "wrongLength"),
    (ADDRESS, "s", "a" * 65, "wrongLength"), *((PROTOCOL, "i", value, "wrongValue")
                                               for value in (-1, 0, 3, 6, 2147483647, -2147483648)),
    *((ADDRESS_TYPE, "i", value, "wrongValue")
      for value in (-1, 0, 3, 4, 16)), *((ROW_STATUS, "i", value, "inconsistentValue")
                                         for value in (-1, 0, 2, 3, 4, 5, 7, 2147483647)),
    *((column, kind, value, "notWritable")
      for column, kind, value in ((STATE, "i", 1), (TIME_STARTED, "t", 1), (TIME_COMPLETED, "t", 1),
                                  (FAIL_CAUSE, "i", 1))),
]


@pytest.mark.parametrize("column, kind, value, status", REFUSALS, ids=[
    f"{column}-{kind}-{str(value)[:11]}-{status}" for column, kind, value, status in REFUSALS
])
def test_refused_write_leaves_the_row(manager, row, column, kind, value, status):
    before = row.columns()
    assert refused(manager, (row.oid(column), kind, value)) == status
    after = row.columns()
    assert after == before


@pytest.mark.parametrize("column, value", [(FILE_NAME, "n" * 128), (USER_NAME, "u" * 41),
                                           (PASSWORD, "p" * 41), (SOURCE, 99), (NOTIFY, -7)])
def test_the_most_that_is_taken(row, column, value):
    row.set((column, value))
    assert row.get(column) == (b"" if column == PASSWORD else
                               octets(value) if isinstance(value, str) else value)


def test_write_to_absent_row(manager):
    request = Request(manager)
    for column, value in ((PROTOCOL, TFTP), (SOURCE, RUNNING), (DESTINATION, NETWORK),
                          (NOTIFY, TRUE), (ADDRESS_TYPE, IPV4), *WORDS.items()):
        assert refused(manager, request.triple(column, value)) == "noSuchName"
    assert refused(manager, (request.oid(ADDRESS), "x", "c0000201")) == "noSuchName"
    assert refused(manager, (request.oid(LEGACY_ADDRESS), "a", "192.0.2.1")) == "noSuchName"
    assert not request.exists()


@pytest.mark.parametrize("index", [0, 2147483648, 4294967295])
@pytest.mark.parametrize("status", [CREATE_AND_GO, CREATE_AND_WAIT, ACTIVE])
def test_index_that_names_no_row(manager, index, status):
    request = Request(manager, index)
    assert refused(manager, (request.oid(ROW_STATUS), "i", status)) == "inconsistentName"
    assert manager.walk(ROOT) == []


def test_write_to_finished_active_row(manager):
    request = Request(manager).create(*upload(SERVER4, "done.cfg")).copied()
    before = request.columns()
    for column, value in ((PROTOCOL, FTP), (SOURCE, STARTUP), (DESTINATION, RUNNING),
                          (NOTIFY, TRUE), (ADDRESS_TYPE, IPV6), (ADDRESS,
                                                                 b"\1\2\3\4"), *WORDS.items()):
        assert refused(manager, request.triple(column, value)) == "inconsistentValue"
    assert request.columns() == before


def test_failed_pdu_takes_back_its_other_values(manager, row):
    """Integers and addresses come back as they were, whatever comes first in the PDU."""
    before = row.columns()
    good = (integer(row, PROTOCOL, SFTP), integer(row, SOURCE, STARTUP),
            integer(row, DESTINATION, RUNNING), integer(row, NOTIFY, TRUE))
    bad = (row.oid(PASSWORD), "s", "p" * 42)
    for triples in ((*good, bad), (bad, *good)):
        assert refused(manager, *triples) == "wrongLength"
        assert row.columns() == before


def test_pdu_that_fails_while_it_is_stored_makes_no_row(manager):
    """An address needs the type before it, which is checked only when the values are stored."""
    request = Request(manager)
    assert refused(manager, (request.oid(ROW_STATUS), "i", CREATE_AND_WAIT),
                   (request.oid(ADDRESS), "x", "c0000214")) == "wrongValue"
    assert not request.exists()


def test_pdu_that_fails_in_its_first_check_leaves_a_row_to_go_on_with(manager):
    """The value is refused before any is stored. The row exists by then, with its defaults."""
    request = Request(manager)
    assert refused(manager, (request.oid(ROW_STATUS), "i", CREATE_AND_WAIT),
                   text(request, FILE_NAME, "n" * 129)) == "wrongLength"
    assert request.get(FILE_NAME, STATE, TIME_STARTED) == [b"", STATE_WAITING, 0]
    request.set(*upload(SERVER4, "went-on.cfg")).copied()


@pytest.mark.parametrize("address_type", [IPV4, IPV6])
def test_addresses_of_every_length(manager, address_type):
    request = Request(manager).create((ADDRESS_TYPE, address_type))
    width = 4 if address_type == IPV4 else 16
    for length in range(65):
        value = bytes(range(10, 10 + length))
        request.set((ADDRESS, value))
        assert request.get(ADDRESS) == value[:width].ljust(width, b"\0"), length


def snapshot():
    """Every file that a worker could reach by mistake: name, size and time."""
    found = {}
    for root in ("/tmp", "/etc", "/lab/switch1", "/ulmo", "/var/tmp"):
        for directory, _, files in os.walk(root):
            for name in files:
                path = os.path.join(directory, name)
                status = os.lstat(path)
                found[path] = (status.st_size, status.st_mtime_ns)
    expected = (
        "/tmp/configcopy.txt", "/lab/switch1/run/history.log", "/lab/switch1/run/history.log.1",
        "/lab/switch1/run/last-copies", "/lab/switch1/run/last-copies.lock"
    )
    return {
        path: seen for path, seen in found.items()
        if path not in expected and "/agent-persistent/" not in path
    }


HOSTILE = [
    "$(touch /tmp/owned)", "`touch /tmp/owned`", '"; touch /tmp/owned; "', "'; touch /tmp/owned; '",
    "a b  c.cfg", "|touch /tmp/owned", "x\ntouch /tmp/owned\n", "-rf", "--help", "../escape.cfg",
    "../../../../tmp/owned", "/../../tmp/owned", "/tmp/owned", "..", ".", "/", "//", "a/",
    "\\..\\owned", "%s%n%x%s%n", "\x01\x7f\x1b[2J", "caf\u00e9", "n" * 128, "../" * 42 + "x",
]


@pytest.mark.parametrize("name", HOSTILE, ids=[f"{number}" for number in range(len(HOSTILE))])
@pytest.mark.parametrize("direction", [upload, download], ids=["upload", "download"])
def test_hostile_file_name(operator, name, direction):
    """The copy ends, whatever its outcome. No command runs, and nothing changes outside the
    worker's directory."""
    before, running = snapshot(), show("running")
    request = Request(operator).create(*direction(SERVER4, name))
    assert request.get(FILE_NAME) == octets(name)
    request.activate()
    state, cause = request.finished()
    assert state == STATE_SUCCESSFUL or cause in (GENERAL, BAD_FILE_NAME)
    assert not os.path.exists("/tmp/owned")
    assert snapshot() == before and show("running") == running
    wait_for(lambda: not children(agent_pid()), what="the end of the worker")


@pytest.mark.parametrize("user", ["%s%n%x", "$(touch /tmp/owned)", '"', "\n", "-l"])
def test_hostile_credentials(manager, user):
    request = Request(manager).create(*upload(SERVER4, "credentials.cfg"), (USER_NAME, user),
                                      (PASSWORD, user))
    assert request.get(USER_NAME, PASSWORD) == [octets(user), b""]
    request.copied()
    assert not os.path.exists("/tmp/owned")
