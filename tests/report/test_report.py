"""The pages, as they are made; test_browser.py shows them to a browser."""

import os
import re
import shutil
import signal
import stat
import subprocess
import time
from pathlib import Path

import pytest
from conftest import DAY, NOW, PROGRAM

SOURCES = Path(__file__).parents[2] / "config-copy/report"
NAMES = [  # of files
    "core1", "CORE1", "core1²", "①", "a--b", "..x", "x..", "con", "-o", "a b", "a'b\"c",
    "<script>alert(1)</script>",
    "\"onmouseover=\"alert(1)", "{{7*7}}", "{% raw %}", "line\nbreak", "tab\tx", "back\\slash",
    "&amp;", "ümläut", "\u202egfc.live", "zero\u200bwidth", "\x1b[31mred", b"\xff\xfe", "x" * 240,
    "%2e%2e%2f", "javascript:alert(1)",
]


def row_of(pages, name):
    (row,) = [row for row in pages["index.html"].rows[1:] if row[0].split()[0] == name]
    return row


def test_a_fleet(fleet):
    fleet.commit({"core1.cfg": b"a\nb\n", "core2.cfg": b"x\n", "old.cfg": b"y\n",
                  "gone.cfg": b"z\n"}, NOW - 40 * DAY)
    fleet.ended(NOW - 40 * DAY, {"agent": "old", "to": "./old.cfg"})
    fleet.commit({"core2.cfg": b"x\ny\nz\n"}, NOW - 3 * DAY)
    fleet.ended(NOW - 3 * DAY, {"agent": "core1", "bytes": 4, "unchanged": True},
                {"agent": "core2", "group": "core", "bytes": 6, "unchanged": False})
    fleet.commit({"core1.cfg": b"a\nc\n", "gone.cfg": None}, NOW - DAY)
    fleet.ended(NOW - DAY, {"agent": "core1", "bytes": 4, "seconds": 1.5, "unchanged": False},
                {"agent": "core2", "group": "core", "ending": "failed", "cause": "timeout",
                 "reason": "the file server is silent", "text": "not this"},
                {"agent": "new", "ending": "not_reachable", "text": "no answer from new"},
                {"agent": "core1", "to": "running"})  # a restore
    pages = fleet.pages()
    index = pages["index.html"]
    assert index.counts() == {
        "switches": "5", "failed": "1", "never backed up": "1", "not in the last run": "1",
        "done": "1", "of these changed": "1", "no longer listed": "1"
    }
    # What needs attention comes first.
    assert [row[0] for row in index.rows[1:]] == ["new", "core2 core", "old", "core1", "gone"]
    assert index.rows[1][1:] == ["not reachable, never backed up no answer from new",
                                 "Last good backup: none known", "Last change: –", "Size: –"]
    core2 = index.rows[2]
    assert core2[1] == "failed the file server is silent"
    assert core2[2].startswith("Last good backup: 3 days ago ")
    assert core2[3].endswith(" +2 −0") and core2[4] == "Size: 6"
    assert index.rows[3][1].startswith("not in the last run ")
    assert index.rows[4][1] == "done, changed" and index.rows[4][3].endswith(" +1 −1")
    assert index.rows[5][1] == "no longer listed"
    assert set(index.links) == {f"switches/{name}.html"
                                for name in ("new", "core1", "core2", "old", "gone")}
    assert set(pages) == {"index.html", *index.links}

    core1 = pages["switches/core1.html"]
    assert core1.text_of("pre") == "@@ -1,2 +1,2 @@\n a\n-b\n+c\n"
    assert (core1.text_of("del"), core1.text_of("ins")) == ("-b\n", "+c\n")
    versions = [row for row in core1.rows if "−" in "".join(row)]
    assert [row[1:3] for row in versions] == [["+1 −1", "4"], ["+2 −0", "4"]]
    assert versions[1][0].endswith(" first")
    (newest,) = fleet.git("rev-parse", "HEAD").decode().split()
    assert core1.links == ["../index.html", f"#v{newest}"] and versions[0][3] == newest[:8]
    assert [row[1:] for row in core1.rows[-2:]] == [["done, changed", "4", "1.50"],
                                                    ["done", "4", ""]]
    assert "removed" in pages["switches/gone.html"].text_of("th")


def test_names_are_data(fleet):
    names = [os.fsencode(name) + b".cfg" for name in NAMES] + [b"core1", b"sub/core1.cfg"]
    fleet.commit({name: b"1\n" for name in names}, NOW - DAY)
    fleet.commit({name: b"2\n" for name in names})
    fleet.ended(NOW, *(
        {"agent": name, "to": f"./{name}.cfg", "group": name, "ending": name, "reason": name}
        for name in NAMES if isinstance(name, str)))
    pages = fleet.pages()
    assert len(pages) == len(names) + 1
    assert len({path.lower() for path in pages}) == len(pages)
    for path in pages:
        assert re.fullmatch(r"index\.html|switches/[a-z0-9][a-z0-9._-]*\.html", path), path
        assert len(path) <= 100
    index = pages["index.html"]
    assert set(index.links) == set(pages) - {"index.html"}
    shown = index.text_of("a").split("\n")
    for name in ("<script>alert(1)</script>", "{{7*7}}", r"line\x0abreak", r"\u202egfc.live",
                 r"\x1b[31mred", r"\xff\xfe", "ümläut", "x" * 240):
        assert name in shown, name
    assert "49" not in shown
    assert "switches/core1.html" in pages


def test_configurations_are_data(fleet):
    lines = [b"</pre><script>parent.broken=1</script>", b"\"onmouseover=\"x", b"{{7*7}}",
             b"\xff\xfe\x80", "\u202e\u2066abc".encode(), b"\x1b[2J\x07", b"&lt;", b"\r",
             b"@@ -1,9 +1,9 @@", b"commit 0123 1", b"diff --git a/x b/x",
             b":100644 100644 a b M\tx", b"-- a/x", b"++ b/x", b"", "\u2028".encode(),
             b"\\ No newline at end of file"]
    fleet.commit({"a.cfg": b"before\n" + b"\n".join(lines), "b.cfg": b"1\n"}, NOW - DAY)
    fleet.commit({"a.cfg": b"\n".join(lines[::-1]) + b"\nafter", "b.cfg": b"2\n"})
    pages = fleet.pages()
    shown = pages["switches/a.html"].text_of("pre")
    for line in (r"+</pre><script>parent.broken=1</script>", "+{{7*7}}", r"+\xff\xfe\x80",
                 r"+\u202e\u2066abc", r"+\x1b[2J\x07", "+&lt;", r"\x0d", "+after",
                 "+@@ -1,9 +1,9 @@", "+commit 0123 1", "+diff --git a/x b/x", "+++ b/x",
                 r"\u2028", "+\\ No newline at end of file"):
        assert line + "\n" in shown, line
    assert pages["switches/b.html"].text_of("pre") == "@@ -1 +1 @@\n-1\n+2\n"


def test_very_long(fleet):
    """Of a difference, a page shows a part."""
    fleet.commit({"line.cfg": b"x" * 1000000, "lines.cfg": b"1\n", "all.cfg": b"0\n" * 4000},
                 NOW - DAY)
    fleet.commit({"line.cfg": b"y" * 1000000, "lines.cfg": b"2\n" * 5000, "all.cfg": b"1\n" * 4000})
    pages = fleet.pages()
    assert all(len(path.read_bytes()) < 100000 for path in fleet.report.rglob("*.html"))
    line = pages["switches/line.html"].text_of("pre")
    assert re.search(r"\n-x+ \[\+ 999\d{3} octets\]\n", line) and "\n+yyy" in line
    lines = pages["switches/lines.html"]
    assert "+5,000 −1" in lines.text_of("h3")
    shown = lines.text_of("pre").count("\n")
    assert shown == 400 and f"{5002 - shown:,} more lines: git show " in lines.text_of("p")


def test_many_versions(fleet):
    fleet.git("init", "-q", "-b", "main")
    fleet.git("fast-import", "--quiet", input=b"".join(
        b"commit refs/heads/main\ncommitter x <x@y> %d +0000\ndata 0\nM 644 inline a.cfg\n"
        b"data 4\n%03d\n\n" % (NOW - day * DAY, day) for day in range(104, 0, -1)))
    page = fleet.pages()["switches/a.html"]
    assert page.text_of("pre").count("@@ -1") == 100
    assert "4 older versions are in git." in page.text_of("p")


def test_not_text_and_other_kinds_of_files(fleet):
    fleet.commit({"a.cfg": b"\0\1\2", "b.cfg": b"b\n", "c.cfg": b"c\n"}, NOW - 3 * DAY)
    fleet.commit({"a.cfg": b"\0\2", "b.cfg": b"b\n"}, NOW - 2 * DAY)
    (fleet.switches / "b.cfg").chmod(0o755)
    (fleet.switches / "c.cfg").unlink()
    (fleet.switches / "c.cfg").symlink_to("/etc/passwd")
    fleet.commit({}, NOW - DAY)
    fleet.commit({"b.cfg": b"d\n"}, NOW)
    pages = fleet.pages()
    assert "This is no text." in pages["switches/a.html"].text_of("p")
    assert "-b\n+d\n" in pages["switches/b.html"].text_of("pre")
    assert "+/etc/passwd\n" in pages["switches/c.html"].text_of("pre")
    assert "root" not in pages["switches/c.html"].text_of("pre")


def test_broken_records(fleet):
    """A line that was cut, and lines that are no record, spoil no other."""
    fleet.commit({"a.cfg": b"1\n"})
    fleet.ended(NOW - DAY, {"agent": "a", "unchanged": False})
    (file,) = fleet.folder.glob("outcomes/*")
    with file.open("ab") as lines:
        for line in (b'{"time":"2026-', b"[]", b"null", b'{"time":1,"agent":"a","ending":"done"}',
                     b'{"time":"2026-01-01T00:00:00Z"}', b"\xff", b"[" * 100000, b"x" * (3 << 20),
                     b'{"time":"2026-01-01T00:00:00Z","agent":7,"ending":"done"}',
                     b'{"time":"2026-01-01T00:00:00Z","agent":"z","ending":["done"]}', b""):
            lines.write(line + b"\n")
    fleet.ended(NOW, {"agent": "a", "bytes": -1, "seconds": 10**400, "unchanged": "x", "to": 7})
    pages = fleet.pages()
    assert set(pages) == {"index.html", "switches/a.html"}
    assert [row[1] for row in pages["switches/a.html"].rows[-2:]] == ["done, changed"] * 2


def test_success_long_ago(fleet):
    """Is looked for in all files of outcomes."""
    fleet.ended(NOW - 300 * DAY, {"agent": "a"}, {"agent": "b", "ending": "busy"})
    fleet.ended(NOW - 200 * DAY, {"agent": "a", "ending": "busy"})
    for day in (120, 80, 40, 0):
        fleet.ended(NOW - day * DAY, *({"agent": agent, "ending": "busy"} for agent in "ab"))
    pages = fleet.pages()
    assert row_of(pages, "a")[2].startswith("Last good backup: 9 months ago ")
    assert row_of(pages, "b")[2] == "Last good backup: none known"


def test_files_without_a_history(fleet):
    (fleet.folder / "plain/sub").mkdir(parents=True)
    for name in ("a.cfg", "sub/b", ".hidden"):
        (fleet.folder / "plain" / name).write_text("x\n")
    os.utime(fleet.folder / "plain/a.cfg", (NOW - 3 * DAY,) * 2)
    (fleet.folder / "plain/outcomes").mkdir()
    (fleet.folder / "plain/outcomes/2026-01.jsonl").touch()
    fleet.report = fleet.folder / "plain/report"
    for _ in range(2):  # also if the report is in that folder
        assert fleet.run(folder=fleet.folder / "plain").returncode == 0
    names = [path.name for path in fleet.report.rglob("*.html")]
    assert len(names) == 3 and "a.html" in names
    text = (fleet.report / "index.html").read_text()
    assert "There is no git repository here" in text and "No outcomes are recorded here" in text
    assert "3 days ago" in text


def test_nothing_yet(fleet):
    assert "There are no backups in this folder yet." in fleet.pages()["index.html"].text_of("p")
    fleet.git("init", "-q")
    assert set(fleet.pages()) == {"index.html"}
    (fleet.switches / "a.cfg").write_text("1\n")
    assert "No version of this file is committed." in fleet.pages()["switches/a.html"].text_of("p")


def test_locked_repository(fleet):
    fleet.commit({"a.cfg": b"1\n"})
    for lock in ("index.lock", "HEAD.lock", "refs/heads/main.lock"):
        (fleet.switches / ".git" / lock).touch()
    assert set(fleet.pages()) == {"index.html", "switches/a.html"}


def files_in(folder):
    return {path: path.read_bytes() for path in Path(folder).rglob("*") if path.is_file()}


def test_damaged_repository(fleet):
    fleet.commit({"a.cfg": b"1\n"}, NOW - DAY)
    fleet.commit({"a.cfg": b"2\n"})
    fleet.pages()
    before = files_in(fleet.report)
    objects = fleet.switches / ".git/objects"
    blob = fleet.git("rev-parse", "HEAD~:a.cfg").decode().strip()
    (objects / blob[:2] / blob[2:]).chmod(0o600)
    (objects / blob[:2] / blob[2:]).write_bytes(b"x")
    said = fleet.refusal()
    assert said.startswith(f"the history in {fleet.switches} can't be read: "), said
    shutil.rmtree(objects)
    assert fleet.refusal().startswith(f"the history in {fleet.switches} can't be read: ")
    # The former report stays, and nothing else does.
    assert files_in(fleet.report) == before
    assert sorted(os.listdir(fleet.folder)) == ["report", "switches"]


def test_folders_that_can_not_be_used(fleet, tmp_path):
    missing = fleet.folder / "x/y"
    assert fleet.refusal(folder=missing) == (
        f"the report can't be made: {missing}: No such file or directory")
    assert not fleet.report.exists()
    said = fleet.refusal(output=missing / "z")
    assert said == f"the report can't be made: {missing}: No such file or directory"
    mine = tmp_path / "mine"
    mine.mkdir()
    (mine / "thesis").touch()
    assert fleet.refusal(output=mine) == (
        f"{mine} is not empty and no report: name another folder")
    assert os.listdir(mine) == ["thesis"]
    assert "not empty and no report" in fleet.refusal(output=fleet.folder)


def as_nobody(fleet, **options):
    """In a folder that everybody may enter."""
    return subprocess.run(
        ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", fleet.program, "report",
         "-o", options.get("output", fleet.report), fleet.folder], stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT, text=True, cwd="/", env={"PATH": os.environ["PATH"]})


@pytest.fixture
def open_fleet(fleet, tmp_path):
    for folder in (fleet.folder, *tmp_path.parents, tmp_path):
        if folder.is_relative_to("/tmp") and folder != Path("/tmp"):
            folder.chmod(0o755)
    output = tmp_path / "output"
    output.mkdir(mode=0o777)
    output.chmod(0o777)
    fleet.report = output / "report"
    # Others may not enter the folder of the build.
    programs = tmp_path / "programs"
    programs.mkdir(mode=0o755)
    for file in (Path(PROGRAM), *SOURCES.iterdir()):
        (programs / file.name).write_bytes(file.read_bytes())
    for path in (programs, *programs.iterdir()):
        path.chmod(0o755)
    fleet.program = programs / Path(PROGRAM).name
    return fleet


def test_without_rights(open_fleet):
    fleet = open_fleet
    fleet.commit({"a.cfg": b"1\n"})
    subprocess.run(["chmod", "-R", "a+rX", fleet.switches], check=True)
    assert as_nobody(fleet).stdout == (
        f"config-copy: the history in {fleet.switches} belongs to root: run the report as root "
        "(runuser -u root -- config-copy report ...)\n")
    fleet.switches.chmod(0o700)
    done = as_nobody(fleet)
    assert done.returncode == 1 and done.stdout == (
        f"config-copy: the report can't be made: {fleet.switches}: Permission denied\n")
    assert os.listdir(fleet.report.parent) == []


def test_who_may_read_it(fleet):
    """For the user only, unless the folder was made otherwise, with its group."""
    fleet.commit({"a.cfg": b"1\n"})
    fleet.pages()
    modes = {oct(stat.S_IMODE(path.stat().st_mode))
             for path in (fleet.report, *fleet.report.rglob("*"))}
    assert modes == {"0o700", "0o600"}
    fleet.report.chmod(0o755)
    os.chown(fleet.report, 0, 33)
    fleet.report.chmod(0o2750)
    for _ in range(2):
        fleet.pages()
        for path in (fleet.report, *fleet.report.rglob("*")):
            status = path.stat()
            assert status.st_gid == 33, path
            assert stat.S_IMODE(status.st_mode) == (0o2750 if path.is_dir() else 0o640), path


def test_readers_always_see_a_whole_report(fleet):
    fleet.commit({f"{number}.cfg": b"1\n" for number in range(50)}, NOW - DAY)
    fleet.pages()
    fleet.commit({f"{number}.cfg": b"2\n" for number in range(40)} |
                 {f"{number}.cfg": None for number in range(40, 45)})
    with subprocess.Popen([PROGRAM, "report", "-o", fleet.report, fleet.folder],
                          stdout=subprocess.DEVNULL) as making:
        looks = 0
        while making.poll() is None:
            assert (fleet.report / "index.html").read_text().endswith("</html>\n")
            looks += 1
    assert looks > 3 and making.returncode == 0
    assert "of these" not in (fleet.report / "index.html").read_text()
    assert "no longer listed" in (fleet.report / "index.html").read_text()


def test_several_at_a_time(fleet):
    fleet.commit({f"{number}.cfg": b"1\n" for number in range(50)})
    words = [PROGRAM, "report", "-q", "-o", fleet.report, fleet.folder]
    for process in [subprocess.Popen(words) for _ in range(4)]:
        assert process.wait() == 0
    assert len(files_in(fleet.report)) == 52
    assert sorted(os.listdir(fleet.folder)) == ["report", "switches"]


def test_killed(fleet):
    """Leaves the former report; the next run removes what it has left."""
    fleet.commit({f"{number}.cfg": b"1\n" for number in range(200)})
    fleet.pages()
    before = files_in(fleet.report)
    for number, leftovers in ((signal.SIGKILL, 1), (signal.SIGTERM, 0)):
        with subprocess.Popen([PROGRAM, "report", "-o", fleet.report, fleet.folder]) as making:
            deadline = time.monotonic() + 20
            while not list(fleet.folder.glob(".report.new-*/switches/*")):
                assert making.poll() is None and time.monotonic() < deadline
            making.send_signal(number)
        assert files_in(fleet.report) == before
        assert len(list(fleet.folder.glob(".report.new-*"))) == leftovers
        if leftovers:
            fleet.pages()
            before = files_in(fleet.report)
            assert sorted(os.listdir(fleet.folder)) == ["report", "switches"]


def test_full_disk(fleet, tmp_path):
    fleet.commit({f"{number}.cfg": b"1\n" for number in range(100)})
    (tmp_path / "disk").mkdir()
    done = subprocess.run(
        [Path(__file__).parents[1] / "own-mounts.sh", "sh", "-c",
         'mount -t tmpfs -o size=500k small "$1" && "$2" report -o "$1/report" "$3"; ls -A "$1"',
         "sh", tmp_path / "disk", PROGRAM, fleet.folder],
        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    assert done.stdout == "config-copy: the report can't be made: No space left on device\n"


def test_programs_that_the_repository_names_do_not_run(fleet, tmp_path):
    fleet.commit({"a.cfg": b"1\n"}, NOW - DAY)
    fleet.commit({"a.cfg": b"2\n"})
    trap = tmp_path / "trap"
    trap.write_text(f"#!/bin/sh\ntouch {tmp_path}/ran\n")
    trap.chmod(0o755)
    for key in ("diff.external", "diff.x.command", "diff.x.textconv", "core.fsmonitor",
                "core.pager", "core.sshCommand", "gpg.program"):
        fleet.git("config", key, str(trap))
    fleet.git("config", "log.showSignature", "true")
    fleet.git("config", "color.ui", "always")
    fleet.git("config", "diff.noprefix", "true")
    (fleet.switches / ".git/info/attributes").write_text("*.cfg diff=x\n")
    assert fleet.pages()["switches/a.html"].text_of("pre") == "@@ -1 +1 @@\n-1\n+2\n"
    assert not (tmp_path / "ran").exists()


def test_without_what_it_needs(fleet, tmp_path):
    fleet.commit({"a.cfg": b"1\n"})
    (tmp_path / "bin").mkdir()
    done = fleet.run(env={"PATH": str(tmp_path / "bin")})
    assert (done.returncode, done.stdout) == (
        1, "config-copy: the report needs git: apt install git\n")
    (tmp_path / "jinja2.py").write_text("raise ImportError\n")
    done = fleet.run(env={**os.environ, "PYTHONPATH": str(tmp_path)})
    assert (done.returncode, done.stdout) == (
        1, "config-copy: the report needs Jinja: apt install python3-jinja2\n")
