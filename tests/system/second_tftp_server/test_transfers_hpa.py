"""The same copies with a server that does not support windowsize."""

import os
import shutil

import transfers
from copy_table import (
    BAD_FILE_NAME, GENERAL, SERVER4, Request, download, serve, show, shared_tests, upload,
)

globals().update(shared_tests(transfers))


def owned(name, content, mode):
    """A file of the server's own account: this server looks at what others may do with it."""
    path = serve(name, content, mode)
    shutil.chown(path, os.environ["LAB_USER"], os.environ["LAB_USER"])
    return path


def test_file_that_may_not_be_read(manager):
    owned("secret.cfg", "hostname stolen\n", 0o600)
    before = show("running")
    assert Request(manager).create(*download(SERVER4, "secret.cfg")).fails() == BAD_FILE_NAME
    assert show("running") == before


def test_file_that_may_not_be_written(manager):
    path = owned("protected.cfg", "untouched\n", 0o644)
    assert Request(manager).create(*upload(SERVER4, "protected.cfg")).fails() == BAD_FILE_NAME
    assert path.read_text() == "untouched\n"


def test_refusal_that_the_server_gives_no_number(manager):
    """The system refuses the server the file; it then answers with the protocol's error 0,
    undefined."""
    serve("foreign.cfg", "hostname stolen\n", 0o600)
    assert Request(manager).create(*download(SERVER4, "foreign.cfg")).fails() == GENERAL
