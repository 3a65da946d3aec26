#!/usr/bin/python3
"""Checks the alert rules of docs/fleet.md with Prometheus' own tool: that they can be loaded, when
they fire, and for which switches."""

import json
import re
import subprocess
import sys
import tempfile
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
TOOL = ROOT / "build/lab/root-prometheus/usr/bin/promtool"
LABELS = 'agent="%s",profile="nightly",instance="manager",job="node"'


def series(name, agent, value, more=""):
    """Of the exporter, every ten minutes for two days. The clock begins at 0."""
    labels = LABELS % agent + more
    return {"series": f"config_copy_{name}{{{labels}}}", "values": f"{value}x288"}


def alerts(at, name, *firing):
    return {"eval_time": at, "alertname": name, "exp_alerts": [{"exp_labels": labels}
                                                               for labels in firing]}


def labels_of(agent, **more):
    return {"agent": agent, "profile": "nightly", "instance": "manager", "job": "node", **more}


RUN = {"instance": "manager", "profile": "nightly"}
# core1's last good backup is of 0:00, edge1 never had one; the last run was at 1:00.
TESTS = [{
    "interval": "10m",
    "input_series": [
        series("last_run_timestamp_seconds", "core1", 3600),
        series("last_run_timestamp_seconds", "edge1", 3600),
        series("last_success_timestamp_seconds", "core1", 0),
        series("outcome", "core1", 1, ',ending="failed",cause="timeout"'),
        series("outcome", "edge1", 1, ',ending="not_reachable",cause=""'),
    ],
    "alert_rule_test": [
        alerts("26h", "SwitchWithoutBackup"),
        alerts("26h10m", "SwitchWithoutBackup", labels_of("core1")),
        alerts("10m", "SwitchNeverBackedUp", labels_of("edge1", ending="not_reachable")),
        alerts("27h", "NoBackups"),
        alerts("27h10m", "NoBackups", RUN),
    ],
}, {
    "interval": "10m",
    "input_series": [{"series": "up", "values": "1x288"}],
    "alert_rule_test": [alerts("10m", "NoBackups", {}), alerts("10m", "SwitchNeverBackedUp")],
}]


def main():
    (rules,) = re.findall(r"^```\n(groups:\n.*?)^```$", (ROOT / "docs/fleet.md").read_text(),
                          re.M | re.S)
    tested = {test["alertname"] for case in TESTS for test in case["alert_rule_test"]}
    if tested != set(re.findall(r"- alert: (\S+)", rules)):
        sys.exit("FAILED: the alerts are not those that are tested")
    with tempfile.TemporaryDirectory() as folder:
        (Path(folder) / "rules.yml").write_text(rules)
        # JSON is YAML, too.
        (Path(folder) / "tests.yml").write_text(json.dumps({
            "rule_files": ["rules.yml"], "evaluation_interval": "10m", "tests": TESTS
        }))
        for words in (["check", "rules", "rules.yml"], ["test", "rules", "tests.yml"]):
            done = subprocess.run([TOOL, *words], cwd=folder, stdout=subprocess.PIPE,
                                  stderr=subprocess.STDOUT, text=True)
            if done.returncode != 0:
                sys.exit(f"FAILED: promtool {' '.join(words)}\n{done.stdout}")
    print(f"{len(tested)} alerts fire when they should")


if __name__ == "__main__":
    main()
