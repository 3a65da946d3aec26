"""The completion for bash. It offers every option, and the manual describes every option."""

import re
import shlex
from pathlib import Path

import pytest
from command import config_copy
from copy_table import run

REPOSITORY = Path(__file__).parents[3]
COMPLETION = REPOSITORY / "config-copy/config-copy.bash-completion"


def completed(*words):
    """What bash offers for the last word."""
    script = (f"source {shlex.quote(str(COMPLETION))}; COMP_LINE=\"config-copy $*\" "
              f"COMP_POINT=1000; _config_copy config-copy \"${{@: -1}}\" -; "
              f"printf '%s\\n' \"${{COMPREPLY[@]}}\"")
    return run("bash", "-c", script, "bash", *words).split()


@pytest.mark.parametrize("words, offered", [
    (("li",), ["list"]),
    (("agent", "ru"), ["running"]),
    (("agent", "fab"), []),
    (("agent", "running", "fab"), ["fabric-startup"]),
    (("agent", "running", "s"), ["startup", "sftp://", "scp://"]),
    (("--quiet", "--jobs", "5", "-v", "2c", "agent", "tft"), ["tftp://"]),
    (("--hosts", "file", "ru"), ["running"]),
    (("--hosts", "file", "running", "all"), ["all-startup"]),
    (("--hosts", "file", "tftp://192.0.2.20/{host}", "ru"), ["running"]),
    (("udp6:[2001:db8::1]:161", "running", "fab"), ["fabric-startup"]),
    (("--wait",), ["--wait-turn"]),
    (("-l", "auth"), ["authNoPriv", "authPriv"]),
    (("list", "agent", "r"), []),
    (("--jobs", ""), []),
])
def test_completion(words, offered):
    assert completed(*words) == offered


def test_files_are_completed(tmp_path):
    (tmp_path / "switches").touch()
    assert completed("--hosts", f"{tmp_path}/sw") == [f"{tmp_path}/switches"]


def test_every_option_is_completed_and_in_the_manual():
    options = set(re.findall(r"--[a-z-]+", config_copy("--help").out))
    assert len(options) >= 9
    manual = (REPOSITORY / "docs/man/config-copy.1").read_text()
    for option in options:
        assert completed(option) == [option]
        assert f"Fl -{option.removeprefix('--')}" in manual, option
