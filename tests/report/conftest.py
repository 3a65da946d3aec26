"""A folder as config-copy-backup makes it, and the report of it."""

import json
import os
import subprocess
import time

import pytest
from pages import Page

PROGRAM = os.environ["CONFIG_COPY"]
NOW = int(time.time())
DAY = 86400


class Fleet:
    """The folder of a profile. Contents are octets, moments are seconds since 1970."""

    def __init__(self, folder):
        self.folder = folder
        self.switches = folder / "switches"
        self.report = folder / "report"
        self.switches.mkdir(parents=True)

    def git(self, *words, **options):
        return subprocess.run(["git", "-C", self.switches, "-c", "user.name=x", "-c",
                               "user.email=x@y", *words], check=True, stdout=subprocess.PIPE,
                              **options).stdout

    def commit(self, files, moment=NOW):
        """Of name: content; None removes the file."""
        if not (self.switches / ".git").exists():
            self.git("init", "-q", "-b", "main")
        for name, content in files.items():
            path = os.path.join(os.fsencode(self.switches), os.fsencode(name))
            if content is None:
                os.unlink(path)
                continue
            os.makedirs(os.path.dirname(path), exist_ok=True)
            with open(path, "wb") as file:
                file.write(content)
        self.git("add", "--all")
        date = f"{moment} +0000"
        self.git("commit", "-q", "-m", "x", env={
            **os.environ, "GIT_COMMITTER_DATE": date, "GIT_AUTHOR_DATE": date})

    def ended(self, moment, *records):
        """A run: of each agent what is not as usual."""
        stamp = time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(moment))
        file = self.folder / "outcomes" / f"{stamp[:7]}.jsonl"
        file.parent.mkdir(exist_ok=True)
        with file.open("a") as lines:
            for record in records:
                record = {"time": stamp, "ending": "done", "attempts": 1, **record}
                lines.write(json.dumps(record) + "\n")

    def run(self, *words, folder=None, output=None, **options):
        return subprocess.run(
            [PROGRAM, "report", *words, "-o", output or self.report, folder or self.folder],
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, errors="surrogateescape",
            **options)

    def pages(self):
        """Makes the report: {path: Page} of all pages."""
        done = self.run()
        assert done.returncode == 0, done.stdout
        return {str(path.relative_to(self.report)): Page(path.read_text())
                for path in self.report.rglob("*.html")}

    def refusal(self, **options):
        """The line of a report that is not made."""
        done = self.run(**options)
        assert done.returncode == 1 and done.stdout.count("\n") == 1, done.stdout
        assert done.stdout.startswith("config-copy: "), done.stdout
        return done.stdout.removeprefix("config-copy: ")[:-1]


@pytest.fixture
def fleet(tmp_path):
    return Fleet(tmp_path / "nightly")
