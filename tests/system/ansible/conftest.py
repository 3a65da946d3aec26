import sys
from pathlib import Path

import pytest

HERE = Path(__file__).parent
sys.path[:0] = [str(HERE), str(HERE.parent / "config_copy")]  # controller; command

pytest.register_assert_rewrite("controller", "command")

from controller import Controller


@pytest.fixture
def controller(tmp_path):
    return Controller(tmp_path)
