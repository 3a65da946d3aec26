"""The pages in Debian's Chromium, without a window: what it shows, loads and runs."""

import html
import json
import re
import subprocess
import threading
from functools import partial
from http.server import SimpleHTTPRequestHandler, ThreadingHTTPServer
from pathlib import Path
from urllib.parse import urlencode

import pytest
from conftest import DAY, NOW

LOOK = Path(__file__).parent / "look.html"


class Handler(SimpleHTTPRequestHandler):
    def log_message(self, *_):
        self.server.requested.append(self.path)

    def translate_path(self, path):
        return str(LOOK) if path.startswith("/look.html?") else super().translate_path(path)


@pytest.fixture
def server(fleet):
    fleet.folder.mkdir(exist_ok=True)
    with ThreadingHTTPServer(("127.0.0.1", 0),
                             partial(Handler, directory=fleet.folder)) as server:
        server.requested = []
        server.url = f"http://127.0.0.1:{server.server_address[1]}"
        thread = threading.Thread(target=server.serve_forever)
        thread.start()
        yield server
        server.shutdown()
        thread.join()


def chromium(tmp_path, *words):
    """(standard output, messages of the pages)"""
    done = subprocess.run(
        ["chromium-headless-shell", "--no-sandbox", "--disable-gpu", "--enable-logging=stderr",
         f"--user-data-dir={tmp_path}/profile", "--disable-dev-shm-usage",
         "--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE 127.0.0.1", *words],
        stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=120)
    assert done.returncode == 0, done.stderr
    return done.stdout, [line for line in done.stderr.splitlines() if "CONSOLE" in line]


def seen_by(tmp_path, server, pages, is_dark=False):
    """What look.html finds, and the pages' messages."""
    url = f"{server.url}/look.html?" + urlencode([("page", page) for page in pages])
    scheme = 0 if is_dark else 1
    shown, messages = chromium(tmp_path, f"--blink-settings=preferredColorScheme={scheme}",
                               "--virtual-time-budget=30000", "--dump-dom", url)
    found = re.search(r"<pre>(\{.*\})</pre>", shown, re.S)
    assert found, shown
    return json.loads(html.unescape(found[1])), messages


def payloads(url):
    return [
        f"<script>ran=1;parent.ran=1;fetch('{url}/stolen')</script>",
        f"</style></pre></title><img src={url}/stolen onerror=\"parent.ran=2\">",
        "\" onmouseover=\"parent.ran=3\" autofocus onfocus=\"parent.ran=4\" x=\"",
        "' onmouseover='parent.ran=5' x='", "javascript:parent.ran=6", "{{7*7}}{% raw %}",
        f"<svg onload=parent.ran=7><image href={url}/stolen>", "\u202egnp.exe\u2066",
        f"<link rel=stylesheet href={url}/stolen><meta http-equiv=refresh content=0;url={url}/x>",
        "word" * 60, "x" * 300 + ".example.net",
    ]


@pytest.fixture
def hostile(fleet, server):
    """A fleet whose names, reasons and configurations try to break out. Returns its pages."""
    lines = payloads(server.url)
    names = [re.sub("[/\\0]", "-", line)[:200] for line in lines]
    text = "\n".join(lines).encode() + b"\n"
    fleet.commit({f"{name}.cfg": b"first\n" for name in names} | {"plain.cfg": text}, NOW - 2 * DAY)
    fleet.commit({f"{name}.cfg": text for name in names} |
                 {"plain.cfg": text * 3 + b"\xff\x1b[2J\0" + b"y" * 5000 + b"\n"}, NOW - DAY)
    fleet.commit({"plain.cfg": text[::-1] + b"z" * 1000000}, NOW)
    for days in (2, 1, 0):
        fleet.ended(NOW - days * DAY, {"agent": "plain", "bytes": 7, "unchanged": days == 1}, *(
            {"agent": line, "to": f"./{name}.cfg", "group": line, "reason": line,
             "ending": "failed" if number % 2 else line}
            for number, (line, name) in enumerate(zip(lines, names)) if number != days))
    pages = fleet.pages()
    return ["/report/" + page for page in sorted(pages)]


def test_what_a_browser_shows(hostile, server, tmp_path):
    light, messages = seen_by(tmp_path, server, hostile)
    dark, more = seen_by(tmp_path, server, hostile, is_dark=True)
    assert messages + more == []  # not even one that something was refused
    requested = {path for path in server.requested if not path.startswith("/look.html?")}
    assert requested == set(hostile)
    assert light["ran"] is None and dark["ran"] is None
    assert len(light["seen"]) == 2 * len(hostile)
    for seen in (*light["seen"], *dark["seen"]):
        where = seen["page"], seen["width"]
        assert seen["ran"] == [], where
        assert seen["wide"] <= seen["width"], where
        assert len(seen["contrasts"]) > 10 and min(seen["contrasts"].values()) >= 4.5, (where, seen)
        assert "\u202e" not in seen["text"] + seen["title"]
    grounds = [{seen["background"] for seen in shown["seen"]} for shown in (light, dark)]
    assert grounds[0] == {"rgb(255, 255, 255)"} and len(grounds[1]) == 1
    assert grounds[0] != grounds[1]
    (index, *_) = [seen for seen in light["seen"] if seen["page"] == "/report/index.html"]
    for line in payloads(server.url):
        shown = line.replace("\u202e", r"\u202e").replace("\u2066", r"\u2066")
        assert shown in index["text"], line


def test_looking_finds_what_is_wrong(fleet, server, tmp_path):
    """Otherwise the test above would prove nothing."""
    (fleet.folder / "bad.html").write_text(
        f"<body style='background: #fff'><p style='width: 500px; color: #aaa'>text"
        f"<img src={server.url}/stolen onerror='parent.ran=1; ran2=1'><script>console.log('x')"
        "</script>")
    found, messages = seen_by(tmp_path, server, ["/bad.html"])
    phone = found["seen"][1]
    assert phone["wide"] > 390 and phone["ran"] == ["ran2"] and found["ran"] == 1
    assert min(phone["contrasts"].values()) < 4.5
    assert "/stolen" in server.requested
    assert messages


def test_in_print(fleet, tmp_path):
    """Sixty switches are two or three sheets of A4."""
    fleet.commit({f"switch{number}.cfg": b"x\n" for number in range(60)})
    fleet.ended(NOW, *({"agent": f"switch{number}"} for number in range(50)), *(
        {"agent": f"switch{number}", "ending": "not_reachable",
         "text": f"no answer from switch{number} in 6 s: check the address, the user and the "
                 "passphrases, and that the agent runs"} for number in range(50, 60)))
    fleet.pages()
    text = re.sub("<meta http-equiv[^>]*>", "<style>@page { size: A4 }</style>",
                  (fleet.report / "index.html").read_text())
    (tmp_path / "a4.html").write_text(text)
    chromium(tmp_path, f"--print-to-pdf={tmp_path}/pdf", (tmp_path / "a4.html").as_uri())
    sheets = len(re.findall(rb"/Type /Page\b", (tmp_path / "pdf").read_bytes()))
    assert 2 <= sheets <= 3
