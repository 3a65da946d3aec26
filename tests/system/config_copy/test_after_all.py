"""Copies that are tried again, and what is written and run when all copies have ended."""

import json
import re
import subprocess
import time
from pathlib import Path

import pytest
from command import (DONE, FAILED, QUICK, UNREACHABLE, USAGE, config_copy, ended, freeze, started,
                     thaw)
from copy_table import AGENT, SERVER4, SERVER_ROOT, wait_for

COMMUNITY = ("rwcommunity lab",)
TO_SERVER = f"tftp://{SERVER4}/{{host}}.cfg"
USER = ("-v2c", "-clab", *QUICK)
PROMTOOL = Path(__file__).parents[3] / "build/lab/root-prometheus/usr/bin/promtool"
PREFIX = "config_copy_"
METRICS = {
    "last_run_timestamp_seconds", "last_success_timestamp_seconds", "outcome", "seconds", "bytes",
    "unchanged"
}
NAME = "[a-zA-Z_:][a-zA-Z0-9_:]*"
LABEL = r'[a-zA-Z_][a-zA-Z0-9_]*="(?:[^"\\\n]|\\["\\n])*"'
SAMPLE = re.compile(rf'({NAME})\{{({LABEL}(?:,{LABEL})*)\}} ([0-9]+(?:\.[0-9]+)?)')


def metrics_in(file):
    """{(metric, agent): [(labels, value)]}. Every line must be as the text format prescribes: for
    each metric its help, its type, then its samples, none of them twice. Prometheus' own tool has
    nothing to say about it."""
    text = file.read_bytes().decode()
    checked = subprocess.run([PROMTOOL, "check", "metrics"], input=text, text=True,
                             stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    assert (checked.returncode, checked.stdout) == (0, "")
    assert text.endswith("\n")
    found, seen, current = {}, set(), None
    lines = iter(text[:-1].split("\n"))
    for line in lines:
        if line.startswith("# HELP "):
            current = re.fullmatch(rf"# HELP ({NAME}) [^\\]+", line)[1]
            assert current not in seen, line
            seen.add(current)
            assert next(lines) == f"# TYPE {current} gauge"
            continue
        name, labels, value = SAMPLE.fullmatch(line).groups()
        assert name == current, line
        pairs = dict(re.findall(r'([a-z]+)="((?:[^"\\]|\\.)*)"', labels))
        key = (name.removeprefix(PREFIX), pairs.pop("agent"))
        assert key not in found, line
        found[key] = (pairs, float(value))
    assert seen == {PREFIX + name for name in METRICS}
    return found


@pytest.fixture
def here(tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    return tmp_path


@pytest.fixture
def one_frozen(own_agents, here):
    """(hosts file, an agent, one that does not answer until it is thawed, its process id)."""
    alive, frozen = own_agents(2, COMMUNITY)
    freeze(frozen.process.pid)
    (here / "hosts").write_text(f"[edge] -t 0.3\n{alive.name}\n{frozen.name}\n")
    yield here / "hosts", alive.name, frozen.name, frozen.process.pid
    thaw(frozen.process.pid)


def test_tried_again_until_it_answers(one_frozen):
    hosts, alive, frozen, pid = one_frozen
    process = started(*USER, "--json", "--retries", 30, "--retry-pause", 0, "--hosts", hosts,
                      "running", TO_SERVER)
    assert f'"agent":"{alive}"' in process.stdout.readline()
    time.sleep(1)  # more than one attempt takes
    thaw(pid)
    done = ended(process)
    copy, summary = done.objects()
    assert (copy["agent"], copy["ending"], summary["done"]) == (frozen, "done", 2), done
    assert 1 < copy["attempts"] <= 31
    assert copy["text"].endswith(f" (attempt {copy['attempts']})")
    assert done.status == DONE


def test_given_up_after_the_last_attempt(one_frozen):
    hosts, alive, frozen, _ = one_frozen
    began = time.monotonic()
    done = config_copy(*USER, "--retries", 2, "--retry-pause", 1, "--hosts", hosts, "running",
                       TO_SERVER)
    assert done.status == UNREACHABLE and time.monotonic() - began > 2, done
    assert done.err.startswith(f"config-copy: [edge] no answer from {frozen} in ")
    assert done.err.count("\n") == 1 and done.err.endswith(" (attempt 3)\n"), done
    assert done.out.startswith(f"[edge] {alive}: running to ") and "attempt" not in done.out, done
    assert done.out.splitlines()[1:3] == ["1 agent is tried again in 1 s"] * 2, done
    done = config_copy(*USER, "--retries", 1, "--retry-pause", 0, frozen, "running", TO_SERVER)
    assert done.out.endswith("1 agent is tried again in 0 s\n"), done
    assert done.status == UNREACHABLE and done.err.endswith(" (attempt 2)\n"), done


def test_failures_that_stay_are_not_tried_again(own_agents, here):
    (bare,) = own_agents(1, COMMUNITY, with_module=False)
    (here / "hosts").write_text(bare.name)
    done = config_copy(*USER, "--json", "--retries", 5, "--hosts", "hosts", "running", "./{host}")
    assert done.objects()[0]["attempts"] == 1, done


def test_failed_hosts_are_the_hosts_of_the_next_run(one_frozen, here):
    hosts, alive, frozen, pid = one_frozen
    words = (*USER, "--failed-hosts", "failed", "--hosts")
    to = ("running", f"tftp://{SERVER4}/{{group}}-{{host}}.cfg")
    assert config_copy(*words, hosts, *to).status == UNREACHABLE
    assert (here / "failed").read_text() == f"[edge]\n{frozen} -t 0.3 # not reachable\n"
    thaw(pid)
    done = config_copy(*words, "failed", *to)
    assert done.status == DONE and done.out.startswith(f"[edge] {frozen}: running to "), done
    assert (here / "failed").read_text() == ""
    assert (SERVER_ROOT / f"edge-{frozen.replace(':', '-')}.cfg").exists()


def test_metrics(one_frozen, here):
    hosts, alive, frozen, pid = one_frozen
    file = here / "copies.prom"

    def run():
        before = int(time.time())
        done = config_copy(*USER, "--metrics", file, "--hosts", hosts, "running", TO_SERVER)
        return done, before, metrics_in(file)

    done, before, first = run()
    assert done.status == UNREACHABLE, done
    assert file.stat().st_mode & 0o777 == 0o644
    for agent in (alive, frozen):
        labels, when = first["last_run_timestamp_seconds", agent]
        assert labels == {"group": "edge"} and before <= when <= time.time()
    assert first["outcome", alive] == ({"group": "edge", "ending": "done", "cause": ""}, 1)
    assert first["outcome", frozen][0]["ending"] == "not_reachable"
    assert first["seconds", alive][1] < 10
    for name in ("bytes", "unchanged", "seconds", "last_success_timestamp_seconds"):
        assert (name, frozen) not in first
    thaw(pid)
    done, _, second = run()
    assert done.status == DONE, done
    success = second["last_success_timestamp_seconds", frozen]
    freeze(pid)
    wait_for(lambda: time.time() > success[1] + 1)
    _, _, third = run()
    assert third["outcome", frozen][0]["ending"] == "not_reachable"
    assert third["last_success_timestamp_seconds", frozen] == success
    assert third["last_success_timestamp_seconds", alive][1] > success[1]
    thaw(pid)


def test_metrics_of_a_file_of_this_machine(here):
    for unchanged in (0, 1):
        done = config_copy(*USER, "--metrics", "copies.prom", AGENT, "running", "./a.cfg")
        assert done.status == DONE, done
        found = metrics_in(here / "copies.prom")
        assert found["bytes", AGENT] == ({}, (here / "a.cfg").stat().st_size)
        assert found["unchanged", AGENT] == ({}, unchanged)


def test_a_dry_run_writes_nothing(own_agents, here):
    (alive,) = own_agents(1, COMMUNITY)
    done = config_copy(*USER, "--dry-run", "--metrics", "m", "--on-done", "/bin/false", alive.name,
                       "running", "tftp://192.0.2.77/x")
    assert done.status == DONE and not (here / "m").exists(), done


def test_program_for_each_agent(one_frozen, here):
    hosts, alive, frozen, _ = one_frozen
    program = here / "program"
    program.write_text(f"""#!/bin/sh
echo "$CONFIG_COPY_AGENT $CONFIG_COPY_GROUP $CONFIG_COPY_ENDING" >> {here}/calls
[ "$CONFIG_COPY_ENDING" = done ] || echo 'no ticket made' >&2
[ "$CONFIG_COPY_ENDING" = done ]
""")
    words = (*USER, "--on-done", "./program", "--hosts", hosts, "running", TO_SERVER)
    done = config_copy(*words)
    assert (done.status, done.out, done.err) == (
        USAGE, "", f"config-copy: --on-done: {program} can't be run: Permission denied\n")
    program.chmod(0o755)
    done = config_copy(*words)
    assert done.status == UNREACHABLE, done
    assert done.err.endswith(
        f"\nconfig-copy: --on-done: {program} failed for {frozen}: no ticket made\n"), done
    assert (here / "calls").read_text() == f"{alive} edge done\n{frozen} edge not_reachable\n"


def test_what_fails_afterwards_is_in_the_exit_status(own_agents, here):
    (alive,) = own_agents(1, COMMUNITY)
    done = config_copy(*USER, "--metrics", "/proc/x", "--on-done", "/bin/false", alive.name,
                       "running", TO_SERVER)
    assert done.status == FAILED, done
    assert done.err == (
        "config-copy: --metrics: /proc/x can't be written: No such file or directory\n"
        f"config-copy: --on-done: /bin/false failed for {alive.name}: it ended with status 1 and "
        "gave no reason\n"
    ), done


def test_outcomes(one_frozen, here):
    """Of each run, without what is secret."""
    hosts, alive, frozen, _ = one_frozen
    for _ in range(2):
        done = config_copy(*USER, "--outcomes", "log", "--hosts", hosts, "running", TO_SERVER)
        assert done.status == UNREACHABLE, done
    assert "lab" not in (here / "log").read_text()
    records = [json.loads(line) for line in (here / "log").read_text().splitlines()]
    assert [record["agent"] for record in records] == [alive, frozen] * 2
    first, failed, second = records[:3]
    assert first["time"] == failed["time"] <= second["time"]
    file = f"{alive.replace(':', '-')}.cfg"
    assert (first["ending"], first["to"]) == ("done", f"tftp://{SERVER4}/{file}")
    assert first["seconds"] < 10
    assert failed["ending"] == "not_reachable"
    assert failed["text"].startswith(f"no answer from {frozen} in ")
    assert failed.keys() == {"time", "agent", "group", "ending", "attempts", "from", "to", "text"}


def test_report_of_the_outcomes(one_frozen, here):
    _, _, frozen, _ = one_frozen
    (here / "backups/outcomes").mkdir(parents=True)
    (here / "hosts").write_text(f"{AGENT}\n{frozen}\n")
    for _ in range(2):
        done = config_copy(*USER, "--outcomes", "outcomes/2026-11.jsonl", "--hosts", "../hosts",
                           "running", "./{host}.cfg", cwd=here / "backups")
        assert done.status == UNREACHABLE, done
    done = config_copy("report", "backups", "--output", "pages")
    assert done.out == "pages/index.html: 2 switches, 1 of them failed in the last run\n", done
    assert (done.status, done.err) == (DONE, "")
    index = (here / "pages/index.html").read_text()
    assert index.index(f">{frozen}</a>") < index.index(f">{AGENT}</a>")
    assert f"no answer from {frozen} in " in index and ">done<" in index
    page = (here / f"pages/switches/{AGENT}.html").read_text()
    # The first of the two outcomes has changed the file.
    assert page.count('<rect class="changed"') == page.count('<rect class="same"') == 1
