"""A save that does not fit."""

import pytest
from copy_table import FABRIC_STARTUP, GENERAL, STATE_DIRECTORY, STATE_SUCCESSFUL, run
from saves import SAVES, SYSTEM_MANAGER_FAILED, error_rows, full_disk, running, save, startup


@pytest.mark.parametrize("destination", SAVES, ids=["startup", "fabric", "all"])
def test_save_that_does_not_fit(manager, destination):
    before = startup()
    with full_disk(STATE_DIRECTORY):
        request = save(manager, destination)
        assert request.fails() == SYSTEM_MANAGER_FAILED
        assert startup() == before
        assert not [*STATE_DIRECTORY.glob("*.new")]
        assert run("cmdshell", "-c", "show last-save") == "no space on device\n"
        expected = [b"no space on device"] if destination == FABRIC_STARTUP else []
        assert [row[3] for _, row in error_rows(manager)] == expected
    again = save(manager, destination)
    again.activate()
    assert again.finished() == (STATE_SUCCESSFUL, GENERAL)
    assert startup() == running()
