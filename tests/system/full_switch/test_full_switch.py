"""The switch's disk is full."""

from copy_table import (
    GENERAL, NO_SPACE, SERVER4, SERVER_ROOT, STATE_FAILED, Request, download, serve, show, upload,
)


def test_download_that_does_not_fit(manager):
    before = show("running")
    serve("huge.cfg", "! comment\n" * 60_000)
    request = Request(manager).create(*download(SERVER4, "huge.cfg"))
    request.activate()
    state, cause = request.finished()
    assert state == STATE_FAILED and cause in (GENERAL, NO_SPACE)
    assert show("running") == before
    Request(manager).create(*upload(SERVER4, "fits.cfg")).copied()
    assert (SERVER_ROOT / "fits.cfg").read_text() == before
