"""Over a link that loses a fifth of all frames each way: requests and answers get lost, but the
copies are made."""

import os
import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).parents[1] / "config_copy"))
pytest.register_assert_rewrite("command")

from command import DONE, config_copy
from copy_table import SERVER4, run

SECOND = os.environ["LAB_AGENTS"].split()[1]


@pytest.mark.parametrize("attempt", range(3))
@pytest.mark.parametrize("words", [("running", "startup"), ("startup", "running"),
                                   ("running", f"tftp://{SERVER4}/lossy.cfg")],
                         ids=["save", "apply", "back-up"])
def test_copies(words, attempt):
    done = config_copy("-t", "0.2", "-r", "20", SECOND, *words)
    assert done.status == DONE, done
    # The other switch reaches its own agent without loss.
    assert run("lab-ctl", "switch-exec", 2, "config-copy", "list",
               SECOND) == f"no copy requests on {SECOND}\n"
