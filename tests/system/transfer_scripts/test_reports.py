"""What the scripts report to the copy that runs them: the reason of a failure, and the file that
was moved. Never the password."""

import contextlib
import re
from pathlib import Path

import pytest
from copy_table import wait_for
from scripts import (
    ACCOUNT, DONE, FOREVER, FTP, FTP_SERVER, LOGIN, NAME, OTHER_HOST, SECRET, listening,
)

# A server that repeats the password when it refuses a login.
ECHO = FTP_SERVER.replace('say("530 no")', 'say("530 no, not with " + rest + "-" + rest)')
FORMS = {
    "plain": SECRET,
    "upper": SECRET.upper(),
    "spaced": " ".join(SECRET),
    "hyphens": "-".join(SECRET),
    "half": SECRET[:6],
    "late": "x" * 395 + SECRET,
}


@pytest.fixture
def report(here):
    path = here / "report"
    path.touch()
    return path


def reporting_to(report):
    """The environment in which a copy runs a script."""
    return {"ULMO_COPY_REPORT": str(report)}


def reported(report):
    """The lines of the report, by their first words."""
    lines = report.read_text(errors="surrogateescape").splitlines()
    return dict(line.split(" ", 1) for line in lines)


def holds_password(text, password=SECRET):
    """Whether the text has four characters of the password in a row, in whatever form."""
    bare = re.sub("[^a-z0-9]", "", text.lower())
    return any(password.lower()[at:at + 4] in bare for at in range(len(password) - 3))


@pytest.mark.parametrize("form", FORMS)
@pytest.mark.parametrize("when", ["before", "after"])
def test_server_that_echoes_the_password(here, report, other_host, form, when):
    text = f"550 what is {FORMS[form]}"
    first, data = (text, "") if when == "before" else ("150 here", "data")
    other_host("/usr/bin/python3", "-c", FTP_SERVER, OTHER_HOST, first, data, text, "500")
    wait_for(lambda: listening(21))
    running = FTP.start("get", here / "back", "x.cfg", server=OTHER_HOST,
                        environment=reporting_to(report))
    running.process.wait(FOREVER)
    said = running.process.stderr.read().decode()
    assert running.process.returncode == NAME
    assert reported(report)["reason"] == "file name refused"
    assert not holds_password(said) and not holds_password(report.read_text())


def test_server_that_echoes_a_wrong_password(here, report, other_host):
    other_host("/usr/bin/python3", "-c", ECHO, OTHER_HOST, "150 here", "", "226 done", "500")
    wait_for(lambda: listening(21))
    (here / "out").write_text("text\n")
    password = "hunter7battery"
    running = FTP.start("put", here / "out", "x.cfg", server=OTHER_HOST, password=password,
                        environment=reporting_to(report))
    running.process.wait(FOREVER)
    assert running.process.returncode == LOGIN
    said = running.process.stderr.read().decode()
    assert reported(report)["reason"] == f"login refused for {ACCOUNT}"
    assert not holds_password(said, password) and not holds_password(report.read_text(), password)


def test_success_names_the_file(script, here, report):
    (here / "out").write_text("text\n")
    assert script.put(here / "out", "there.cfg", environment=reporting_to(report)) == DONE
    assert report.read_text() == f"file {here}/out\n"
    report.write_text("")
    assert script.get("there.cfg", here / "back", environment=reporting_to(report)) == DONE
    assert report.read_text() == f"file {here}/back\n"


def test_names_add_no_line_to_the_report(script, here, report):
    """A name with a line break is refused, and reported on one line."""
    user = "a\nfile /etc/shadow"
    assert script.put(here / "out", "x", user=user, environment=reporting_to(report)) == LOGIN
    assert report.read_text() == "reason login refused for a file /etc/shadow\n"


def test_clients_do_not_see_the_report(script, here, report, transfers, slow_link):
    slow_link(800)
    transfer = transfers([script], bytes(40_000))[0]
    transfer.start(environment=reporting_to(report))
    seen = set()
    while transfer.running.process.poll() is None:
        for pid in transfer.running.family()[1:]:
            with contextlib.suppress(OSError):
                name = Path(f"/proc/{pid}/comm").read_text().strip()
                if name in ("ftp", "sftp", "scp", "ssh"):
                    seen.add(name)
                    assert b"ULMO_COPY_REPORT" not in Path(f"/proc/{pid}/environ").read_bytes()
    assert transfer.running.result() == DONE and seen
