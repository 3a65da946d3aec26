"""The server's disk is full."""

import errno

import pytest
from copy_table import (
    NO_SPACE, SERVER4, SERVER6, SERVER_ROOT, Request, download, serve, show, upload,
)


@pytest.mark.parametrize("server", [SERVER4, SERVER6], ids=["ipv4", "ipv6"])
def test_disk_full_on_the_server(manager, server, lines_of):
    # More than a server may keep in its buffers until it has acknowledged all of it.
    serve("much.cfg", lines_of(*(f"vlan {number}" for number in range(100, 2100))))
    Request(manager).create(*download(server, "much.cfg")).copied()
    filler = SERVER_ROOT / "filler"
    with open(filler, "wb", buffering=0) as file:
        try:
            while file.write(b"x" * 4096) == 4096:
                pass
        except OSError as error:
            assert error.errno == errno.ENOSPC
    before = show("running")
    assert Request(manager).create(*upload(server, "no-room.cfg")).fails() == NO_SPACE
    assert show("running") == before
    filler.unlink()
    Request(manager).create(*upload(server, "room.cfg")).copied()
    assert (SERVER_ROOT / "room.cfg").read_text() == before
