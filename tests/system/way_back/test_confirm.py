"""config-copy --confirm against a switch with confirm_limit, from a host that the restore may cut
off."""

import subprocess
import time

import pytest
from copy_table import AGENT, SERVER4, serve, wait_for
from protocols import settings
from saves import running, startup
from test_way_back import CUT_OFF, NOTHING_WAITS, link_of_the_device, pending, same_switch

FAILED, UNREACHABLE = 1, 4

assert same_switch  # a fixture


def restored(name, *options):
    return subprocess.run(
        ["lab-ctl", "server-exec", "config-copy", "-v2c", "-c", "lab", *options, AGENT,
         f"tftp://{SERVER4}/{name}", "running"],
        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
        timeout=60, check=False)


@pytest.mark.parametrize("option", ["--save", "--confirm"])
def test_a_restore_is_kept(option):
    serve("new.cfg", "vlan 401\n")
    with settings(confirm_limit=4):
        done = restored("new.cfg", option)
        assert done.returncode == 0 and done.stdout.endswith("; saved to startup\n"), done
        assert pending() == NOTHING_WAITS
        time.sleep(4.7)
    assert b"vlan 401\n" in running()
    assert startup() == running()


def test_a_restore_that_has_come_back_is_not_called_kept():
    before, saved = running(), startup()
    serve("cut.cfg", CUT_OFF)
    with settings(confirm_limit=4), link_of_the_device():
        done = restored("cut.cfg", "--confirm")
        wait_for(lambda: pending() == NOTHING_WAITS, what="the way back")
    assert done.returncode == FAILED, (done.stdout, done.stderr)
    assert "the switch has gone back to the configuration before" in done.stderr, done
    assert running() == before
    assert startup() == saved


def test_a_manager_that_is_cut_off_says_what_follows():
    before, saved = running(), startup()
    serve("cut.cfg", CUT_OFF)
    with settings(confirm_limit=8), link_of_the_device():
        done = restored("cut.cfg", "--confirm", "--time-limit", "3", "-t", "0.3", "-r", "1")
        assert done.returncode == UNREACHABLE, done
        assert "with the setting confirm_limit the switch goes back by itself" in done.stderr, done
        wait_for(lambda: running() == before, what="the way back")
        wait_for(lambda: pending() == NOTHING_WAITS, what="the end of the wait")
    assert startup() == saved
