"""Copies over the network."""

import transfers
from copy_table import BAD_FILE_NAME, SERVER4, Request, download, serve, shared_tests, show, upload

globals().update(shared_tests(transfers))


def test_file_that_may_not_be_read(manager):
    serve("secret.cfg", "hostname stolen\n", mode=0o600)
    before = show("running")
    assert Request(manager).create(*download(SERVER4, "secret.cfg")).fails() == BAD_FILE_NAME
    assert show("running") == before


def test_file_that_may_not_be_written(manager):
    path = serve("protected.cfg", "untouched\n", mode=0o444)
    assert Request(manager).create(*upload(SERVER4, "protected.cfg")).fails() == BAD_FILE_NAME
    assert path.read_text() == "untouched\n"
