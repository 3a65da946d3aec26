"""The completions for bash, zsh and fish, as they are installed. They offer every option of --help,
and the manual describes every option."""

import os
import pty
import re
import select
import shlex
import shutil
import time
from pathlib import Path

import pytest
from command import config_copy
from copy_table import run

REPOSITORY = Path(__file__).parents[3]
COMPLETIONS = Path(shutil.which("config-copy")).resolve().parents[1] / "completions"
TO = ["running", "startup", "fabric-startup", "all-startup"]
URLS = ["tftp://", "ftp://", "sftp://", "scp://"]


class Bash:
    def completed(self, *words):
        script = (f"source {shlex.quote(str(COMPLETIONS / 'config-copy'))}; "
                  "COMP_LINE=\"config-copy $*\" COMP_POINT=1000; "
                  "_config_copy config-copy \"${@: -1}\" -; printf '%s\\n' \"${COMPREPLY[@]}\"")
        return run("bash", "-c", script, "bash", *words).split()

    def end(self):
        pass


class Fish(Bash):
    def completed(self, *words):
        script = (f"source {shlex.quote(str(COMPLETIONS / 'config-copy.fish'))}; "
                  f"complete -C {shlex.quote(' '.join(('config-copy', *words)))}")
        return [line.split("\t")[0]
                for line in run("fish", "--no-config", "-c", script).splitlines()]


class Zsh:
    """A shell on a terminal, where a key inserts all that it offers."""

    def __init__(self):
        self.pid, self.terminal = pty.fork()
        if self.pid == 0:
            os.environ.update(TERM="dumb", PS1="", PS2="")
            os.execvp("zsh", ["zsh", "-f", "-i"])
        self.ask(f"""fpath=({COMPLETIONS} $fpath); autoload -U compinit; compinit -u -D
insert_all() {{ _main_complete; compstate[insert]=all compstate[list]= }}
zle -C insert-all complete-word insert_all; bindkey -e; bindkey '^G' insert-all
unsetopt nomatch
print '<<' ready '>''>'
""")

    def ask(self, typed):
        os.write(self.terminal, typed.encode())
        shown, deadline = "", time.monotonic() + 20
        while not (found := re.search(r"^<< (.*) >>\r$", shown, re.MULTILINE)):
            assert time.monotonic() < deadline, shown
            if select.select([self.terminal], [], [], 0.1)[0]:
                shown += os.read(self.terminal, 4096).decode()
        return found[1].split()

    def completed(self, *words):
        # ^A and ^E: the line is printed instead of run
        offered = self.ask(f"config-copy {' '.join(words)}\a\x01print -r '<<' \x05 '>''>'\r")
        offered = offered[len(words):]
        return [] if offered == [words[-1]] else offered

    def end(self):
        os.write(self.terminal, b"exit\r")
        os.close(self.terminal)
        os.waitpid(self.pid, 0)


@pytest.fixture(scope="module", params=[Bash, Zsh, Fish], ids=["bash", "zsh", "fish"])
def shell(request, tmp_path_factory):
    """In an empty folder, so that no file is offered by chance."""
    before = Path.cwd()
    os.chdir(tmp_path_factory.mktemp("empty"))
    shell = request.param()
    yield shell
    shell.end()
    os.chdir(before)


@pytest.mark.parametrize("words, offered", [
    (("li",), ["list"]),
    (("agent", "ru"), ["running"]),
    (("agent", "fab"), []),
    (("agent", "running", "fab"), ["fabric-startup"]),
    (("agent", "running", ""), [*TO, *URLS]),
    (("--quiet", "--jobs", "5", "-v", "2c", "agent", "tft"), ["tftp://"]),
    (("--hosts", "file", "ru"), ["running"]),
    (("--hosts", "file", "running", "all"), ["all-startup"]),
    (("--hosts", "file", "tftp://192.0.2.20/{host}", "ru"), ["running"]),
    (("udp6:[2001:db8::1]:161", "running", "fab"), ["fabric-startup"]),
    (("@nightly", "agent", "running", "fab"), ["fabric-startup"]),
    (("diff", "agent", "s"), ["startup"]),
    (("diff", "agent", "running", "s"), ["startup"]),
    (("--wait",), ["--wait-turn"]),
    (("-l", "auth"), ["authNoPriv", "authPriv"]),
    (("list", "agent", "r"), []),
    (("rep",), ["report"]),
    (("--jobs", "r"), []),
])
def test_completion(shell, words, offered):
    assert sorted(shell.completed(*words)) == sorted(offered)


def test_files_are_completed(shell, tmp_path):
    (tmp_path / "switches").touch()
    for words in (("--hosts",), ("agent",), ("agent", "running"), ("diff", "agent", "running")):
        assert shell.completed(*words, f"{tmp_path}/sw") == [f"{tmp_path}/switches"], words


def test_a_report_is_of_a_folder(shell, tmp_path):
    (tmp_path / "backup.cfg").touch()
    (tmp_path / "backups").mkdir()
    offered = shell.completed("report", f"{tmp_path}/back")
    assert [name.rstrip("/") for name in offered] == [f"{tmp_path}/backups"]


@pytest.fixture
def profiles(tmp_path, monkeypatch):
    """Also for a shell that runs already."""
    folder = Path.home() / ".config"
    monkeypatch.delenv("XDG_CONFIG_HOME", raising=False)
    folder.mkdir(exist_ok=True)
    file = folder / "config-copy.conf"
    assert not file.exists()
    file.write_text("[defaults]\n[nightly]\n[night.2]\n[weekly]\n")
    yield
    file.unlink()


def test_profiles_are_completed(shell, profiles):
    assert sorted(shell.completed("@ni")) == ["@night.2", "@nightly"]
    assert shell.completed("--json", "@w") == ["@weekly"]


def test_every_option_is_completed(shell):
    options = re.findall(r"^  (?:-\w, )?(--[a-z-]+)", config_copy("--help").out, re.MULTILINE)
    assert len(options) >= 15
    assert sorted(shell.completed("--")) == sorted(options)


def test_every_option_is_in_the_manual():
    manual = (REPOSITORY / "docs/man/config-copy.1").read_text()
    for option in re.findall(r"--[a-z-]+", config_copy("--help").out):
        assert f"Fl -{option.removeprefix('--')}" in manual, option
