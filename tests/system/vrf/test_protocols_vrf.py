"""Every protocol within the VRF `management`, the only way to the server."""

import protocols
import pytest
from copy_table import (
    NOTIFY, SERVER4, TIMEOUT, TRUE, Request, download, run, serve, shared_tests, upload,
)
from protocols import EVERY_PROTOCOL, Place, fails

globals().update(shared_tests(protocols))


@pytest.fixture
def place():
    return Place("management")


@EVERY_PROTOCOL
def test_without_the_route_of_the_vrf(operator, place, protocol, unchanged):
    network = SERVER4.rpartition(".")[0] + ".0/24"
    serve("there.cfg", "hostname stolen\n")
    run(*place.within("ip", "route", "del", network))
    try:
        for direction in (upload, download):
            fails(
                Request(operator).create(*direction(SERVER4, "there.cfg", protocol=protocol),
                                         (NOTIFY, TRUE)), place.cause(protocol, TIMEOUT))
    finally:
        run(*place.within("ip", "route", "add", network, "dev", "vrf0"))
    Request(operator).create(*upload(SERVER4, "again.cfg", protocol=protocol)).copied()


@EVERY_PROTOCOL
def test_way_outside_the_vrf(operator, place, protocol, unchanged):
    """The switch's ordinary network has a route to the server's other address, and the VRF has
    none."""
    ordinary = "192.0.2.20"
    assert "dev mgmt0 " in run("ip", "route", "get", ordinary)
    for direction in (upload, download):
        fails(
            Request(operator).create(*direction(ordinary, "there.cfg", protocol=protocol),
                                     (NOTIFY, TRUE)), place.cause(protocol, TIMEOUT))
