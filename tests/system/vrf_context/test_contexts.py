"""The SNMP context of a request names the VRF of its transfer. Here the server is reached within
the VRF `red` only."""

import pytest
from copy_table import (
    CREATE_AND_WAIT, NOTIFY, ROW_STATUS, SERVER4, SERVER6, SERVER_ROOT, STARTUP, STATE,
    STATE_SUCCESSFUL, TIMEOUT, TRUE, Manager, Request, SnmpError, download, serve, upload,
)
from protocols import EVERY_PROTOCOL, Place, content, fails, received

LITTLE = 1000  # octets that pass anyway, such as neighbour discovery and notifications


@pytest.fixture
def place():
    return Place("red", context="red")


@EVERY_PROTOCOL
@pytest.mark.parametrize("server", [SERVER4, SERVER6], ids=["ipv4", "ipv6"])
def test_context_names_the_vrf(operator, place, protocol, server, startup, unchanged):
    in_vrf, outside = place.octets_seen()
    whole = content(100_000)
    startup(whole)
    Request(operator).create(*upload(server, "up.cfg", STARTUP, protocol)).copied()
    assert (SERVER_ROOT / "up.cfg").read_bytes() == whole
    serve("down.cfg", whole)
    request = Request(operator).create(*download(server, "down.cfg", protocol=protocol))
    assert received(request) == whole and request.get(STATE) == STATE_SUCCESSFUL
    now_in_vrf, now_outside = place.octets_seen()
    assert now_in_vrf - in_vrf > 2 * len(whole) and now_outside - outside < LITTLE


@EVERY_PROTOCOL
def test_without_a_context_the_vrf_is_management(place, protocol, unchanged):
    """No VRF has that name, so the transfer uses the ordinary network, which has no route to the
    server."""
    before = place.octets_seen()[0]
    serve("there.cfg", "hostname stolen\n")
    for direction in (upload, download):
        fails(
            Request(Manager("v3")).create(*direction(SERVER4, "there.cfg", protocol=protocol),
                                          (NOTIFY, TRUE)), place.cause(protocol, TIMEOUT))
    assert place.octets_seen()[0] - before < LITTLE


def test_one_table_in_every_context(operator):
    request = Request(operator).create()
    assert Request(Manager("v3"), request.index).exists()
    Request(Manager("v3"), request.index).destroy()
    assert not request.exists()


def test_unknown_context_gets_no_answer(operator):
    stranger = Manager("v3", context="blue")
    request = Request(stranger)
    with pytest.raises(SnmpError) as error:
        stranger.tool("snmpset", *request.triple(ROW_STATUS, CREATE_AND_WAIT),
                      options=("-r0", "-t1"))
    assert error.value.status == "noResponse"
    assert not Request(operator, request.index).exists()
