"""Rows as a manager creates, reads and destroys them."""

import pytest
from copy_numbers import COPY_ENTRY, ERROR_ENTRY, ROOT
from copy_table import (
    ACTIVE, ADDRESS, ADDRESS_TYPE, COLUMNS, CREATE_AND_GO, CREATE_AND_WAIT, DESTINATION, FAIL_CAUSE,
    FALSE, FILE_NAME, GENERAL, IPV4, IPV6, LEGACY_ADDRESS, NETWORK, NOTIFY, NOT_READY, PASSWORD,
    PROTOCOL, ROW_STATUS, RUNNING, SERVER4, SERVER6, SERVER_ROOT, SOURCE, STARTUP, STATE,
    STATE_SUCCESSFUL, STATE_WAITING, TFTP, TIME_COMPLETED, TIME_STARTED, USER_NAME, Request,
    SnmpError, address_octets, octets, server_columns, show, upload,
)


def test_create_and_wait_then_columns_then_active(manager):
    request = Request(manager)
    request.set((ROW_STATUS, CREATE_AND_WAIT))
    assert request.get(ROW_STATUS, STATE, FAIL_CAUSE, TIME_STARTED,
                       TIME_COMPLETED) == [NOT_READY, STATE_WAITING, GENERAL, 0, 0]
    for column, value in upload(SERVER4, "waited.cfg"):
        request.set((column, value))
        assert request.get(column) == (value if isinstance(value, int) else octets(value))
    request.copied()
    assert request.get(ROW_STATUS) == ACTIVE
    assert (SERVER_ROOT / "waited.cfg").read_text() == show("running")


@pytest.mark.parametrize("place", ["first", "last"])
def test_create_and_go_with_all_columns_in_one_pdu(manager, place):
    request = Request(manager)
    pairs = upload(SERVER4, "at-once.cfg")
    row_status = ((ROW_STATUS, CREATE_AND_GO),)
    request.set(*(row_status + pairs if place == "first" else pairs + row_status))
    assert request.finished() == (STATE_SUCCESSFUL, GENERAL)
    assert request.get(ROW_STATUS) == ACTIVE
    assert (SERVER_ROOT / "at-once.cfg").read_text() == show("running")


@pytest.mark.parametrize("pairs", [(), upload(SERVER4, "never.cfg")], ids=["alone", "with columns"])
def test_active_on_absent_row(manager, pairs):
    """The SET makes a row that reads active. Such a row takes no columns, so there is nothing that
    it could start. It stays until it is destroyed."""
    request = Request(manager)
    with pytest.raises(SnmpError) as refusal:
        request.set((ROW_STATUS, ACTIVE), *pairs)
    assert refusal.value.status == "inconsistentValue"
    assert request.get(ROW_STATUS, STATE, FILE_NAME) == [ACTIVE, STATE_WAITING, b""]
    request.destroy()
    assert not request.exists()


def test_create_and_go_of_incomplete_request_waits_for_the_rest(manager):
    request = Request(manager)
    request.set((ROW_STATUS, CREATE_AND_GO), (SOURCE, RUNNING), (DESTINATION, NETWORK),
                *server_columns(SERVER4))
    assert request.get(ROW_STATUS, STATE) == [NOT_READY, STATE_WAITING]
    request.set((FILE_NAME, "completed.cfg")).copied()


def test_destroy_of_absent_row_succeeds_and_makes_none(manager):
    request = Request(manager)
    request.destroy()
    assert not request.exists()


def test_destroy_removes_every_column(manager):
    request = Request(manager).create(*upload(SERVER4, "never.cfg"))
    request.destroy()
    assert set(request.columns().values()) == {None}


@pytest.mark.parametrize("status", [CREATE_AND_GO, CREATE_AND_WAIT])
def test_creation_of_existing_row_is_refused(manager, status):
    request = Request(manager).create(*upload(SERVER4, "kept.cfg"))
    before = request.columns()
    with pytest.raises(SnmpError) as refusal:
        request.set((ROW_STATUS, status))
    assert refusal.value.status == "inconsistentValue"
    assert request.columns() == before


def test_defaults(manager):
    request = Request(manager).create()
    assert request.columns() == {
        PROTOCOL: TFTP, SOURCE: NETWORK, DESTINATION: STARTUP, LEGACY_ADDRESS: None, FILE_NAME: b"",
        USER_NAME: b"", PASSWORD: b"", NOTIFY: FALSE, STATE: STATE_WAITING, TIME_STARTED: 0,
        TIME_COMPLETED: 0, FAIL_CAUSE: GENERAL, ROW_STATUS: NOT_READY, ADDRESS_TYPE: 0,
        ADDRESS: None,
    }


@pytest.mark.parametrize("tool", ["snmpwalk", "snmpbulkwalk"])
def test_walk_over_several_rows_is_in_order_and_complete(manager, tool):
    rows = [
        Request(manager, index).create(*upload(SERVER4, f"row{index}.cfg"))
        for index in (9, 2147483647, 3, 5)
    ]
    indexes = sorted(row.index for row in rows)
    walked = manager.walk(ROOT, tool)
    expected = [f"{COPY_ENTRY}.{column}.{index}" for column in COLUMNS for index in indexes]
    assert [oid for oid, _ in walked] == expected
    for row in rows:
        found = {column: value for oid, value in walked for column in COLUMNS
                 if oid == row.oid(column)}
        assert found == row.columns()


def test_ipv6_server_has_no_legacy_address(manager):
    Request(manager, 3).create(*upload(SERVER4, "four.cfg"))
    Request(manager, 5).create(*upload(SERVER6, "six.cfg"))
    assert manager.walk(f"{COPY_ENTRY}.{LEGACY_ADDRESS}") == [(f"{COPY_ENTRY}.{LEGACY_ADDRESS}.3",
                                                               SERVER4)]
    assert manager.walk(f"{COPY_ENTRY}.{ADDRESS}") == [
        (f"{COPY_ENTRY}.{ADDRESS}.3", address_octets(SERVER4)),
        (f"{COPY_ENTRY}.{ADDRESS}.5", address_octets(SERVER6))
    ]


def test_get_next_between_rows_and_past_them(manager):
    for index in (3, 5, 9):
        Request(manager, index).create()
    column = f"{COPY_ENTRY}.{PROTOCOL}"
    following = f"{COPY_ENTRY}.{SOURCE}.3"
    for asked, answered in ((column, f"{column}.3"), (f"{column}.3", f"{column}.5"),
                            (f"{column}.4", f"{column}.5"), (f"{column}.5.1", f"{column}.9"),
                            (f"{column}.9", following), (f"{column}.2147483648", following),
                            (f"{column}.4294967295", following)):
        assert manager.get_next(asked)[0] == answered, asked


def test_what_is_no_instance(manager):
    request = Request(manager).create()
    index_column = f"{COPY_ENTRY}.1.{request.index}"
    longer = f"{request.oid(PROTOCOL)}.1"
    error_row = f"{ERROR_ENTRY}.2.{request.index}.1"
    assert manager.get(index_column, longer, error_row) == [None, None, None]
    assert manager.walk(ERROR_ENTRY) == []


def test_password_reads_empty_always(manager):
    request = Request(manager).create((PASSWORD, "secret"))
    assert request.get(PASSWORD) == b""
    request.set(*upload(SERVER4, "password.cfg")).copied()
    assert request.get(PASSWORD) == b""
    assert [value for oid, value in manager.walk(COPY_ENTRY)
            if oid == request.oid(PASSWORD)] == [b""]


@pytest.mark.parametrize("length", [40, 41])
def test_longest_user_name_ends_where_the_password_begins(manager, length):
    name = b"u" * length
    request = Request(manager).create((USER_NAME, name), (PASSWORD, "secret"))
    assert request.get(USER_NAME, PASSWORD) == [name, b""]
    request.set((PASSWORD, "p" * 41))
    assert request.get(USER_NAME, PASSWORD) == [name, b""]


def test_legacy_address_sets_type_and_address(manager):
    request = Request(manager).create((ADDRESS_TYPE, IPV6), (LEGACY_ADDRESS, "10.0.0.1"))
    assert request.get(ADDRESS_TYPE, ADDRESS,
                       LEGACY_ADDRESS) == [IPV4, bytes([10, 0, 0, 1]), "10.0.0.1"]


def test_copy_through_the_legacy_address(manager):
    request = Request(manager).create((SOURCE, RUNNING), (DESTINATION, NETWORK),
                                      (FILE_NAME, "legacy.cfg"), (LEGACY_ADDRESS, SERVER4))
    request.copied()
    assert (SERVER_ROOT / "legacy.cfg").read_text() == show("running")
